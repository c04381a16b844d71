#include "agent/files/StateKeeper.h"

#include "agent/loop/LoopFixture.h"
#include "support/Folder.h"

namespace Agent {
namespace {

class StateKeeperTest : public LoopFixture {
  protected:
    bool add(StateText& text, int& added) {
        if (calls++ == 1) throw std::bad_alloc();
        if (added == 2) return false;
        InterfaceState interface {
            "up" + std::to_string(added++), "", {}
        };
        interface.groups.addRecord(RecordType::isEx, Lox::IpAddr("239.1.1.1"));
        text.addInterface(interface);
        return true;
    }

    Support::Folder folder;
    std::filesystem::path const path = folder.file("state");
    int calls = 0;
    StateKeeper keeper{
        loop, path,
        [this] { return [this, added = 0](StateText& text) mutable { return add(text, added); }; }};
};

TEST_F(StateKeeperTest, WriteThatFailsIsTriedAgainWithoutAnotherChange) {
    testing::internal::CaptureStderr();
    std::filesystem::create_directory(path); // in the way of the second attempt
    keeper.handleChange();
    EXPECT_TRUE(serveUntil([&] { return calls > 2; })) << "memory ran out half way";
    std::filesystem::remove(path);
    EXPECT_TRUE(serveUntil([&] { return std::filesystem::exists(path); }));
    EXPECT_EQ(stateRead(path).size(), 2u);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("is not written"), std::string::npos);
}

} // namespace
} // namespace Agent

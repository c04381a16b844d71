// The file that outlives a crash: what is written is read, and nothing else is.
#include "Nex/Error.h"
#include "agent/files/StateKeeper.h"
#include "agent/loop/LoopFixture.h"
#include "support/Folder.h"

namespace Agent {
namespace {

Lox::IpAddr address(std::uint32_t host) { return Lox::IpAddr::fromHost(host); }

std::string stateText(unsigned groups = 2, unsigned sources = 1) {
    InterfaceState first{"up0", "", {}}, second{"up1", "/run/netns/red", {}};
    for (unsigned i = 0; i < groups; ++i) {
        first.groups.addRecord(RecordType::isIn, address(0xEF000000 + i));
        for (unsigned s = 0; s < sources; ++s) first.groups.addSource(address(0x0A0000FF + s));
    }
    second.groups.addRecord(RecordType::isEx, address(0xEF0000FF));
    second.groups.addRecord(RecordType::member, address(0xEF0000FE));
    StateText text;
    text.addInterface(first);
    std::string const begun = text.take();
    text.addInterface(second);
    text.endAdd();
    return begun + text.take();
}

TEST(StateFileTest, WhatIsWrittenIsReadAndNoDamageIs) {
    std::string const text = stateText();
    auto const read = stateParse(text);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].name + read[0].namespaceName, "up0");
    EXPECT_EQ(read[1].name + read[1].namespaceName, "up1/run/netns/red");
    ASSERT_EQ(read[0].groups.size(), 2u);
    EXPECT_EQ(read[0].groups.record(1).group, address(0xEF000001));
    EXPECT_EQ(read[0].groups.record(1).type, RecordType::isIn);
    EXPECT_EQ(read[0].groups.record(1).sources[0], address(0x0A0000FF));
    EXPECT_EQ(read[1].groups.record(0).type, RecordType::isEx);
    EXPECT_EQ(read[1].groups.record(1).type, RecordType::member);
    StateText none;
    none.endAdd();
    EXPECT_TRUE(stateParse(none.take()).empty());

    for (std::size_t at = 0; at < text.size(); ++at) {
        EXPECT_THROW(stateParse(text.substr(0, at)), Nex::ParseException) << at;
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string damaged = text;
            damaged[at] = char(damaged[at] ^ (1 << bit));
            EXPECT_THROW(stateParse(damaged), Nex::ParseException) << at;
        }
    }
    EXPECT_THROW(stateParse(text + '\0'), Nex::ParseException);
    EXPECT_THROW(stateRead("/"), std::runtime_error);
    EXPECT_TRUE(stateRead("/nowhere").empty());
}

TEST(StateFileTest, FileIsBoundedAndHoldsWhatFits) {
    std::string const text = stateText(65536, 100);
    EXPECT_LE(text.size(), StateText::mostOctets + 64);
    auto const read = stateParse(text);
    EXPECT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].groups.size(), (StateText::mostOctets - 32) / 408);
    EXPECT_EQ(stateParse(stateText(65536))[0].groups.size(), 65536u);
}

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

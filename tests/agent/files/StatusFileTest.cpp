#include "agent/files/StatusFile.h"

#include "IgmpHostProxy/Status.h"
#include "agent/loop/LoopFixture.h"
#include "agent/records/RecordPart.h"
#include "support/Folder.h"

#include <sys/stat.h>

namespace Agent {
namespace {

using IgmpHostProxy::Status;
using Lox::IpAddr;

IpAddr group(unsigned number) { return IpAddr::fromHost(0xEF010000 + number); }

class StatusFileTest : public LoopFixture {
  protected:
    static constexpr unsigned groups = 20000;

    StatusFileTest() {
        for (unsigned i = 0; i < groups; ++i)
            up0->groupSourceListIs(group(i))->includeSourceListIs(IpAddr("10.0.0.1"));
    }

    nlohmann::json written() const { return nlohmann::json::parse(std::ifstream(path)); }

    Support::Folder folder;
    std::filesystem::path const path = folder.file("status");
    Nex::Ptr<Status> status = Status::StatusIs("status");
    // A name of the kernel's need not be text.
    Nex::Ptr<IgmpHostProxy::IntfStatus> up0 = status->intfStatusIs(Lox::IntfId("up\"\xff"));
    int begun = 0;
    StatusFile file{loop, path, [this] {
                        ++begun;
                        return std::make_unique<RecordPart<Status>>(Nex::Ptr<Status const>(status));
                    }};
};

TEST_F(StatusFileTest, WhatComesAndGoesBetweenTheSlicesLeavesItWhole) {
    file.doWrite();
    int turns = 0;
    EXPECT_TRUE(serveUntil([&] {
        for (unsigned i = 0; i < 300 && begun == 1; ++i) {
            up0->groupSourceListDel(group(groups - 1 - 300 * unsigned(turns) - i));
            up0->groupSourceListIs(group(groups + 300 * unsigned(turns) + i));
        }
        if (++turns == 2) file.doWrite(); // once more, behind this one
        if (turns == 3) status->intfStatusDel(up0->intfId());
        return begun == 2 && std::filesystem::exists(path) && written()["intfStatus"].empty();
    }));
    EXPECT_GT(turns, 4);
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".new"));
}

TEST_F(StatusFileTest, FileThatCannotBeWrittenLeavesNothingBehind) {
    testing::internal::CaptureStderr();
    std::filesystem::create_directory(path);
    file.doWrite();
    EXPECT_TRUE(
        serveUntil([&] { return begun == 1 && !std::filesystem::exists(path.string() + ".new"); }));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("the status is not written"),
              std::string::npos);
    std::filesystem::remove(path);
    mkfifo((path.string() + ".new").c_str(), 0600); // nobody reads it
    file.doWrite();
    EXPECT_TRUE(serveUntil([&] { return std::filesystem::exists(path); }));
    EXPECT_EQ(written()["intfStatus"].begin().value()["groupSourceList"].size(), groups);
}

} // namespace
} // namespace Agent

// The membership merge: each row is a short history of one group, and what it leaves
// or traces.
#include "Library.h"

namespace IgmpHostProxy {
namespace {

Lox::IpAddr sourceOf(char name) {
    return name == '*' ? anySource : Lox::IpAddr::fromHost(0x0A000000 + unsigned(name - '0'));
}

class Merge : public OneInterface {
  protected:
    /// Words of a history: +i1 configures source 10.0.0.1 in include mode, -i1 takes it back, ~i1
    /// lists it as deleted although it stays configured, ti1 lets the forwarding table put it in;
    /// e for exclude mode, * for any source.
    void run(std::string const& history) {
        std::istringstream words(history);
        for (std::string word; words >> word;) step(word[0], word[1] == 'i', sourceOf(word[2]));
    }
    void step(char what, bool include, Lox::IpAddr source) {
        if (what == '-') return takeBack(*config, source, groupG, include);
        auto const record = what == '+'   ? config->groupSourceListIs(groupG)
                            : what == '~' ? config->deletedGroupSourceListIs(groupG)
                                          : status->groupSourceListIs(groupG);
        include ? record->includeSourceListIs(source) : record->excludeSourceListIs(source);
        if (what == '~') config->deletedGroupSourceListDel(groupG);
    }
    /// As "i1 e23 1:2 *:1": both lists, then the counts; "none" without a status entry.
    std::string state() {
        std::string lists = "none", counts;
        if (auto const* const entry = status->groupSourceList(groupG)) {
            std::string include, exclude;
            for (char const name : names) {
                if (entry->includeSourceListHas(sourceOf(name))) include += name;
                if (entry->excludeSourceListHas(sourceOf(name))) exclude += name;
            }
            lists = "i" + include + " e" + exclude;
        }
        for (char const name : names)
            if (auto const count = machine().groupSourceRefCounter({sourceOf(name), groupG}))
                counts += std::string(" ") + name + ":" + std::to_string(count);
        return lists + counts;
    }
    void forget() {
        config->groupSourceListDel(groupG);
        status->groupSourceListDel(groupG);
        machine().groupSourceRefCounterDelAll();
    }

    static constexpr std::string_view names = "*123";
};

struct Row {
    char const* history;
    char const* state;
};

// These take several steps about any source of one group, which random histories seldom meet.
TEST_F(Merge, WhatAnySourceHidIsBackAsItLeaves) {
    Row const rows[] = {
        // Without any source in the include list, the sources that it hid are back
        {"+i* -i*", "none"},
        {"+i1 +e2 +i* -i*", "i1 e2 1:1 2:1"},
        {"+i* +i1 +e2 -i*", "i1 e2 1:1 2:1"},
        {"+i1 +e1 +i* -i*", "i e1 1:2"},
        {"+i* +i1 ti2 -i*", "i12 e 1:1"},
        {"+i* +e* -i*", "i e* *:1"},
        {"+i* +e* +e1 -i*", "i e1 *:1 1:1"},
        {"+i* +e* +i1 -i*", "i1 e *:1 1:1"},
        // Without any source in the exclude list, likewise; all references to it are forgotten
        {"+e* -e*", "none"},
        {"+i1 +e* -e*", "i1 e 1:1"},
        {"+i* +e* -e*", "i* e"},
        {"+i* +e* -e* -i*", "none"},
        {"+i* +i1 +e* -e*", "i*1 e 1:1"},
        // Any source that only the table includes hides nothing
        {"+i1 ti* +e2", "i*1 e2 1:1 2:1"},
    };
    for (auto const& row : rows) {
        run(row.history);
        EXPECT_EQ(state(), row.state) << row.history;
        forget();
    }
}

struct TraceRow {
    char const* history;
    char const* last;
    Lines lines;
};

TEST_F(Merge, TracesEveryBranch) {
    std::string const present =
        "6 Group is present in status.Checking if it was configured or added from mfib";
    std::string const first = "6 Adding sg into ref counter";
    std::string const up = "6 Ref count for sg incremented, now is";
    std::string const down = "6 Ref count for sg decremented, now is";
    std::string const uncounted =
        "6 (S,G) was added from Mfib. Has no refCounter. Deleting from status";
    std::string const empty = "6 Include and exclude source list is empty.";
    TraceRow const rows[] = {
        {"ti2",
         "+i1",
         {present, "6 Deleting sources added from mfib for group:239.1.1.1", first, up + "1",
          "6 Adding10.0.0.1 to includeSourceList for group239.1.1.1"}},
        {"+i*",
         "+i1",
         {present, first, up + "1",
          "6 0.0.0.0 present in includeSourceList.Takes precedence over (S,G).No-op"}},
        {"+e*",
         "+i1",
         {present, first, up + "1", "6 0.0.0.0 in excludeSourceList. Deleting it.",
          "6 Adding10.0.0.1 to includeSourceList for group239.1.1.1"}},
        {"+e1",
         "+i1",
         {present, up + "2",
          "6 Source :10.0.0.1 present in excludeSourceList.This gets preference over include "
          "mode. No-op"}},
        {"+i1",
         "+i*",
         {present, first, up + "1", "6 Adding0.0.0.0 to includeSourceList for group239.1.1.1"}},
        {"+i*",
         "+e1",
         {present, first, up + "1",
          "6 0.0.0.0 present in includeSource list.Takes precedence over excludeSourceList. "
          "No-op"}},
        {"+i1",
         "+e*",
         {present, first, up + "1", "6 (S,G) present for this group.Adding (*,G) is a No-op"}},
        {"+e*",
         "+e1",
         {present, first, up + "1",
          "6 0.0.0.0 not in includeSourceList. 0.0.0.0 in excludeSourceList.Deleting it",
          "6 Exclude source10.0.0.1 added to exclude list of group239.1.1.1"}},
        {"+i1",
         "+e1",
         {present, up + "2", "6 Exclude source also found in includeSource list.",
          "6 Exclude source10.0.0.1 added to exclude list of group239.1.1.1"}},
        {"ti1", "-i1", {uncounted}},
        {"+i1 ti2",
         "-e*",
         {uncounted, "6 No ref count found for sg:Value('IgmpHostProxy::SourceGroup', ** "
                     "{'sourceAddr': 10.0.0.2, 'groupAddr': 239.1.1.1})"}},
        {"+i1 +e1", "~i1", {down + "1"}},
        {"+i1 +e1",
         "-i1",
         {down + "1", "6 Ref counter > 0, so adding source to excludeSource and removing from "
                      "includeSourceList"}},
        {"+i1 +e1",
         "-e1",
         {down + "1", "6 Ref counter is greater than 0, so adding source to includeSource and "
                      "removing from excludeSourceList"}},
        {"+i1",
         "-i1",
         {down + "0", "6 Ref count is 0. Deleting it from includeSourceList.", empty,
          "6 Deleting group:239.1.1.1"}},
        {"+e1",
         "-e1",
         {down + "0", "6 Ref count is 0. Deleting it from excludeSourceList.", empty,
          "6 Deleting group:239.1.1.1"}},
        {"+i1 +e*",
         "-i1",
         {down + "0", "6 Ref count is 0. Deleting it from includeSourceList.", empty}},
        {"+i* +e*",
         "-i*",
         {down + "1", "6 Ref counter > 0.  Deleting from includeSourceList",
          "6 Source list is empty. Creating new source",
          "6 Creating local groupSource to restore sources after removing 0.0.0.0from "
          "includeSourceList"}},
        {"+e*",
         "-e*",
         {down + "0", "6 Ref counter is 0. Deleting (*,G) from status",
          "6 Creating local groupSource to restore sources after removing 0.0.0.0from "
          "excludeSourceList",
          empty + "Deleting group from intfStatus"}},
    };
    for (auto const& row : rows) {
        run(row.history);
        TraceLog trace(6);
        run(row.last);
        EXPECT_EQ(trace.take(), row.lines) << row.history << " then " << row.last;
        forget();
    }
}

TEST_F(Merge, CountersHaveNoFloor) {
    SourceGroup const sg(sourceS, groupG);
    EXPECT_EQ(machine().groupSourceRefCounterInc(sg, 3), 3u);
    EXPECT_EQ(machine().groupSourceRefCounterDec(sg, 4), ~std::uint32_t(0));
}

} // namespace
} // namespace IgmpHostProxy

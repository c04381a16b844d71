#include "agent/ports/ChangesAnswer.h"

#include "agent/loop/Json.h"
#include "agent/loop/SystemError.h"
#include "agent/records/JsonStream.h"

#include <cstdio>

namespace Agent {

namespace {

using nlohmann::json;

struct FileEnd {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileEnd>;

class ChangeRows : public JsonPart {
  public:
    explicit ChangeRows(File rows) : rows_(std::move(rows)) {}
    ~ChangeRows() override { std::free(line_); }
    ChangeRows(ChangeRows const&) = delete;
    ChangeRows& operator=(ChangeRows const&) = delete;
    bool next(JsonStream& stream) override {
        ssize_t const length = getline(&line_, &room_, rows_.get());
        if (length <= 0) return false;
        stream.addElementText(std::string_view(line_, std::size_t(length) - 1));
        return true;
    }

  private:
    File rows_;
    char* line_ = nullptr;
    std::size_t room_ = 0;
};

class ChangesPart : public JsonPart {
  public:
    ChangesPart(json answer, File rows) : answer_(std::move(answer)), rows_(std::move(rows)) {}
    bool next(JsonStream& stream) override {
        if (!rows_) return false;
        for (auto const& [name, value] : answer_.items()) stream.add(name, value);
        stream.openArray("changes", std::make_unique<ChangeRows>(std::move(rows_)));
        return true;
    }

  private:
    json answer_;
    File rows_;
};

/// Written by hand, for there may be very many.
void addState(std::string& text, HostEngine::GroupState const& state) {
    if (!state.member()) {
        text += "null";
        return;
    }
    text += state.mode == FilterMode::include ? R"({"mode":"include","sources":[)"
                                              : R"({"mode":"exclude","sources":[)";
    for (Lox::IpAddr const source : state.sources) {
        if (text.back() == '"') text += ',';
        text += '"' + source.stringValue() + '"';
    }
    text += "]}";
}

} // namespace

ChangeCounts changeCounts(PortRegistry const& ports) {
    ChangeCounts counts;
    forChanges(ports, [&](auto const&, auto, auto const& before, auto const& after) {
        if (!before.member())
            ++counts.joined;
        else if (!after.member())
            ++counts.left;
        else
            ++counts.changed;
    });
    return counts;
}

std::string changeText(std::string const& interface, Lox::IpAddr group,
                       HostEngine::GroupState const& before, HostEngine::GroupState const& after) {
    std::string text = R"({"interface":)" +
                       json(interface).dump(-1, ' ', false, json::error_handler_t::replace) +
                       R"(,"group":")" + group.stringValue() + R"(","before":)";
    addState(text, before);
    text += R"(,"after":)";
    addState(text, after);
    return text + '}';
}

std::unique_ptr<JsonPart> changesPart(json answer, FileDescriptor rows) {
    if (lseek(rows.get(), 0, SEEK_SET) < 0) errnoThrow("lseek");
    File file(fdopen(rows.get(), "r"));
    if (!file) errnoThrow("fdopen");
    rows.release();
    return std::make_unique<ChangesPart>(std::move(answer), std::move(file));
}

} // namespace Agent

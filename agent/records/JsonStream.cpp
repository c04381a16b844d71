#include "agent/records/JsonStream.h"

#include "agent/loop/Json.h"

namespace Agent {

namespace {

/// Names of interfaces may hold any octets.
std::string textOf(nlohmann::json const& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace

/// Inner parts first: outer ones hold what these walk.
JsonStream::~JsonStream() {
    while (!levels_.empty()) levels_.pop_back();
}

bool JsonStream::next() {
    if (!levels_.empty() && !levels_.back().part->next(*this)) {
        doClose();
        if (levels_.empty()) text_ += '\n';
    }
    return !levels_.empty();
}

void JsonStream::add(std::string const& name, nlohmann::json const& value) {
    doName(name);
    if (!value.is_object()) {
        text_ += textOf(value);
        return;
    }
    doOpen('{', nullptr);
    for (auto const& [inner, innerValue] : value.items()) add(inner, innerValue);
    doClose();
}

void JsonStream::open(std::string const& name, std::unique_ptr<JsonPart> part) {
    doName(name);
    doOpen('{', std::move(part));
}

void JsonStream::openArray(std::string const& name, std::unique_ptr<JsonPart> part) {
    doName(name);
    doOpen('[', std::move(part));
}

void JsonStream::addElement(nlohmann::json const& value) { addElementText(textOf(value)); }

void JsonStream::addElementText(std::string_view value) {
    doSeparate();
    text_ += value;
}

void JsonStream::doSeparate() {
    if (!std::exchange(levels_.back().empty, false)) text_ += ',';
    doBreakLine();
}

void JsonStream::doName(std::string const& name) {
    doSeparate();
    text_ += textOf(name);
    text_ += ": ";
}

void JsonStream::doOpen(char begin, std::unique_ptr<JsonPart> part) {
    text_ += begin;
    levels_.push_back({std::move(part), begin == '{' ? '}' : ']'});
}

void JsonStream::doClose() {
    Level const level = std::move(levels_.back());
    levels_.pop_back();
    if (!level.empty) doBreakLine();
    text_ += level.end;
}

void JsonStream::doBreakLine() {
    if (layout_ == Layout::line) return;
    text_ += '\n';
    text_.append(2 * levels_.size(), ' ');
}

} // namespace Agent

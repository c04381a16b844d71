// JSON text that is made piece by piece: for what is too large to be shown in one turn of the loop,
// and need not lie in memory as a whole. The world may change between two pieces; each piece shows
// it as it is then.
//
// An object or an array is a part, which adds its members or elements a few at a time. A part may
// open another one as a member; that one is then asked until it has no more.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

class JsonStream;

class JsonPart {
  public:
    virtual ~JsonPart() = default;
    /// Adds a few members (elements, of an array), or opens a part. False, with nothing added, at
    /// the end.
    virtual bool next(JsonStream& stream) = 0;
};

class JsonStream {
  public:
    /// On one line, as protocols want it, or on many, as readers do.
    enum class Layout { line, lines };

    /// `part` is the outermost object.
    explicit JsonStream(std::unique_ptr<JsonPart> part, Layout layout = Layout::lines)
        : layout_(layout) {
        doOpen('{', std::move(part));
    }
    ~JsonStream();
    JsonStream(JsonStream const&) = delete;
    JsonStream& operator=(JsonStream const&) = delete;

    /// Makes one more piece, about as long as one group's. Returns whether more is to come.
    bool next();
    /// What has been made since the last call.
    std::string take() { return std::exchange(text_, {}); }
    std::size_t size() const { return text_.size(); }

    // For parts.

    /// Adds a member whose value is known as a whole.
    void add(std::string const& name, nlohmann::json const& value);
    /// Adds a member whose members are those of `part`.
    void open(std::string const& name, std::unique_ptr<JsonPart> part);
    /// Adds a member that is an array, with the elements of `part`.
    void openArray(std::string const& name, std::unique_ptr<JsonPart> part);
    /// Adds an element to the array at hand.
    void addElement(nlohmann::json const& value);
    /// The same of one that is text already.
    void addElementText(std::string_view value);

  private:
    /// An object or array that is not closed yet.
    struct Level {
        std::unique_ptr<JsonPart> part; ///< null where a whole value is being added
        char end;
        bool empty = true;
    };
    void doSeparate();
    void doName(std::string const& name);
    void doOpen(char begin, std::unique_ptr<JsonPart> part);
    void doClose();
    void doBreakLine();

    Layout layout_;
    std::string text_;
    std::vector<Level> levels_;
};

} // namespace Agent

// Tracing, on two channels with the same text: the ring `Lumen::ring`, always, and text lines for
// a trace handle that is enabled at the point's level.
//
//     static Nex::TraceHandle handle("FileName");
//     NEX_TRACE(handle, 7, "Adding source : % to group : %", source, group);
//     NEX_TRACE_ENTRY(handle, " ( % )", key);   // level 8: the full signature, then the format
#pragma once

#include "Lumen/Ring.h"

#include <string>
#include <string_view>

namespace Nex {

class TraceHandle;

/// Where text traces go. Set by the embedding program.
class TraceSink {
  public:
    /// `text` is one line without its end. What this throws is dropped: a trace disturbs nobody.
    virtual void onTrace(TraceHandle const&, unsigned level, std::string const& text) = 0;

  protected:
    ~TraceSink() = default;
};

/// The switch of one trace file. Handles are static objects; all of them can be found by name.
class TraceHandle {
  public:
    explicit TraceHandle(char const* fileName);
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;

    char const* fileName() const { return fileName_; }
    /// Points up to this level are written as text; at first 0, none.
    unsigned level() const { return level_; }
    void levelIs(unsigned level) { level_ = level; }
    bool enabled(unsigned level) const { return level <= level_; }

    /// Null when there is no handle of that name.
    static TraceHandle* handle(std::string_view fileName);
    /// Null for none. Not owned; must outlive its use.
    static void sinkIs(TraceSink* sink) { sink_ = sink; }

  private:
    friend class TraceHelper;
    static inline TraceSink* sink_ = nullptr;
    static inline TraceHandle* first_ = nullptr;

    char const* fileName_;
    unsigned level_ = 0;
    TraceHandle* next_;
};

/// Hands the text of one trace point to the sink when it goes: the text of the ring's entry.
class TraceHelper {
  public:
    TraceHelper(TraceHandle const& handle, Lumen::Entry const& entry)
        : handle_(handle), entry_(entry) {}
    TraceHelper(TraceHelper const&) = delete;
    TraceHelper& operator=(TraceHelper const&) = delete;
    ~TraceHelper();

  private:
    TraceHandle const& handle_;
    Lumen::Entry const entry_;
};

} // namespace Nex

#define NEX_TRACE_POINT(HANDLE, LEVEL, ENTRY, FORMAT, ...)                                         \
    do {                                                                                           \
        using NexTypes = decltype(::Lumen::typesOf(__VA_ARGS__));                                  \
        static constexpr ::Lumen::Point nexPoint{                                                  \
            __PRETTY_FUNCTION__, __LINE__, LEVEL, ENTRY, FORMAT, &NexTypes::print};                \
        static_assert(::Lumen::valuesIn(FORMAT) == ::Lumen::countOf(NexTypes()));                  \
        auto const& nexEntry = ::Lumen::ring.record(nexPoint __VA_OPT__(, ) __VA_ARGS__);          \
        if ((HANDLE).enabled(LEVEL)) [[unlikely]]                                                  \
            ::Nex::TraceHelper(HANDLE, nexEntry);                                                  \
    } while (false)
#define NEX_TRACE(HANDLE, LEVEL, ...) NEX_TRACE_POINT(HANDLE, LEVEL, false, __VA_ARGS__)
/// For functions only, not for lambdas: the signature is the function's own.
#define NEX_TRACE_ENTRY(HANDLE, ...) NEX_TRACE_POINT(HANDLE, 8, true, "" __VA_ARGS__)

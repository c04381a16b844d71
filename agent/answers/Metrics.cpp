#include "agent/answers/Metrics.h"

#include "agent/kernel/Netlink.h"
#include "agent/loop/Json.h"
#include "agent/reload/Reloader.h"

#include <cctype>
#include <fmt/format.h>
#include <memory>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Agent {

namespace {

/// Groups that are counted at once: well below a millisecond.
constexpr unsigned mostGroupsInPiece = 512;

using Labels = MetricsText::Labels;

std::string escaped(std::string_view value) {
    std::string text;
    for (char const c : value) switch (c) {
        case '\\':
        case '"':
            text += '\\';
            [[fallthrough]];
        default:
            text += c;
            break;
        case '\n':
            text += "\\n";
        }
    return text;
}

/// Where the samples of one family go.
class Samples {
  public:
    /// `labels` are those that all of them have.
    Samples(std::string& text, std::string name, Labels labels = {})
        : text_(text), name_(std::move(name)), labels_(std::move(labels)) {}

    template <class Value>
    void add(Value value, Labels const& labels = {}, char const* suffix = "") {
        std::string all;
        for (Labels const* const some : {&labels_, &labels})
            for (auto const& [label, content] : *some)
                all += fmt::format("{}{}=\"{}\"", all.empty() ? "{" : ",", label, escaped(content));
        text_ += fmt::format("{}{}{}{} {}\n", name_, suffix, all, all.empty() ? "" : "}", value);
    }

  private:
    std::string& text_;
    std::string name_;
    Labels const labels_;
};

struct Family {
    char const* name;
    char const* type;
    char const* unit; ///< the end of the name, if it has one
    char const* help;
    void (*add)(Samples& samples, AgentView const& view) = nullptr;
    void (*addInterface)(Samples& samples, AgentView const& view, std::string const& name,
                         IgmpHostPort const* port) = nullptr;
};

/// "CurrentStateReports" as "current_state_report".
std::string kindText(std::string_view words) {
    std::string text;
    for (char const c : words) {
        if (std::isupper(c) && !text.empty()) text += '_';
        text += char(std::tolower(c));
    }
    if (text.ends_with('s')) text.pop_back();
    return text;
}

/// From a counter's name such as "v3StateChangeReportSent".
Labels packetLabels(std::string_view counter) {
    std::string_view const direction = counter.ends_with("Sent") ? "Sent" : "Received";
    std::size_t const digits = counter.find_first_not_of("0123456789", 1) - 1;
    std::string_view const kind = counter.substr(1 + digits);
    std::string const versions(counter.substr(1, digits));
    return {{"direction", kindText(direction)},
            {"version", versions == "12" ? "1-2" : versions},
            {"kind", kindText(kind.substr(0, kind.size() - direction.size()))}};
}

void addPackets(Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
    if (!port) return;
    HostCounters const& counters = port->engine().counters();
#define AGENT_ADD(type, name, Name) samples.add(counters.name, packetLabels(#name), "_total");
    IGMP_PACKET_COUNTERS(AGENT_ADD, AGENT_ADD)
#undef AGENT_ADD
}

void addOdd(Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
    if (!port) return;
    HostCounters const& counters = port->engine().counters();
    samples.add(counters.oddSource, {{"oddity", "source"}}, "_total");
    samples.add(counters.oddTtl, {{"oddity", "ttl"}}, "_total");
    samples.add(counters.oddRouterAlert, {{"oddity", "router_alert"}}, "_total");
}

void addDropped(Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
    if (!port) return;
#define AGENT_ADD(name)                                                                            \
    samples.add(port->engine().counters().dropped[std::size_t(DropReason::name)],                  \
                {{"reason", kindText(#name)}}, "_total");
    AGENT_DROP_REASONS(AGENT_ADD)
#undef AGENT_ADD
    SocketCounters const socket = port->socketCounters();
    samples.add(socket.tooLong, {{"reason", "too_long"}}, "_total");
    samples.add(socket.missed, {{"reason", "socket_full"}}, "_total");
}

void addTurns(Samples& samples, AgentView const& view) {
    Histogram const& turns = view.loop.turnSeconds();
    std::size_t const last = Histogram::bounds.size();
    for (std::size_t at = 0; at < last; ++at)
        samples.add(turns.upTo(at), {{"le", fmt::format("{}", Histogram::bounds[at])}}, "_bucket");
    samples.add(turns.upTo(last), {{"le", "+Inf"}}, "_bucket");
    samples.add(turns.sum(), {}, "_sum");
    samples.add(turns.upTo(last), {}, "_count");
}

void addReloads(Samples& samples, AgentView const& view) {
    Reloader::Counts const& counts = view.reloader.counts();
    samples.add(counts.done, {{"result", "done"}}, "_total");
    samples.add(counts.refused, {{"result", "refused"}}, "_total");
    samples.add(counts.undone, {{"result", "undone"}}, "_total");
}

void addMemory(Samples& samples, AgentView const&) {
    unsigned long pages = 0;
    if (std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(
            std::fopen("/proc/self/statm", "re"), std::fclose);
        file && std::fscanf(file.get(), "%*u %lu", &pages) == 1)
        samples.add(pages * std::uint64_t(sysconf(_SC_PAGESIZE)));
}

void addProcessorTime(Samples& samples, AgentView const&) {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    auto const seconds = [](timeval time) {
        return double(time.tv_sec) + double(time.tv_usec) / 1e6;
    };
    samples.add(seconds(used.ru_utime) + seconds(used.ru_stime), {}, "_total");
}

constexpr Family families[] = {
    {"ihproxy_build", "info", "", "The program's version.",
     [](Samples& samples, AgentView const&) {
         samples.add(1, {{"version", IHP_VERSION}}, "_info");
     }},
    {"ihproxy_uptime_seconds", "gauge", "seconds", "For how long the agent has run.",
     [](Samples& samples, AgentView const& view) {
         samples.add(EventLoop::now() - view.startTime);
     }},
    {"ihproxy_configuration_number", "gauge", "", "The number of the configuration in force.",
     [](Samples& samples, AgentView const& view) { samples.add(view.reloader.number()); }},
    {"ihproxy_reloads", "counter", "", "Configurations that were put in force, refused or undone.",
     addReloads},
    {"ihproxy_obstacles", "gauge", "",
     "What keeps the agent, a VRF or an interface from working; `ihproxyctl status` names it.",
     [](Samples& samples, AgentView const& view) {
         samples.add(view.obstacles.obstacles().size());
     }},
    {"ihproxy_netlink_losses", "counter", "",
     "How often the kernel dropped notifications, so that everything was read again.",
     [](Samples& samples, AgentView const&) { samples.add(Netlink::losses(), {}, "_total"); }},
    {"ihproxy_loop_turn_seconds", "histogram", "seconds",
     "How long one turn of the event loop took, without waiting.", addTurns},
    {"process_resident_memory_bytes", "gauge", "bytes", "Resident memory.", addMemory},
    {"process_cpu_seconds", "counter", "seconds", "Processor time.", addProcessorTime},
    {"ihproxy_interface_up", "gauge", "", "Whether the interface can be used.", nullptr,
     [](Samples& samples, AgentView const& view, std::string const& name, IgmpHostPort const*) {
         samples.add(int(view.vrfs.obstacle(name).value_or("?").empty()));
     }},
    {"ihproxy_igmp_version", "gauge", "", "The version spoken now.", nullptr,
     [](Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
         if (port) samples.add(port->engine().version());
     }},
    {"ihproxy_groups", "gauge", "",
     "Groups that are announced, or would be on an interface that is up.", nullptr,
     [](Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
         samples.add(port ? port->engine().memberCount() : 0);
     }},
    // Counted one by one, see doCountGroups().
    {"ihproxy_groups_by_origin", "gauge", "",
     "The same by who wants them; a group that several want counts for each."},
    {"ihproxy_packets", "counter", "", "IGMP packets that were sent, or received and valid.",
     nullptr, addPackets},
    {"ihproxy_odd_queries", "counter", "",
     "Queries that were used though they should not look as they do.", nullptr, addOdd},
    {"ihproxy_received_dropped", "counter", "", "Received packets that could not be used.", nullptr,
     addDropped},
    {"ihproxy_send_dropped", "counter", "", "Packets that the interface did not take.", nullptr,
     [](Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
         if (port) samples.add(port->socketCounters().sendDropped, {}, "_total");
     }},
    {"ihproxy_send_queue_packets", "gauge", "packets", "Packets that wait to be sent.", nullptr,
     [](Samples& samples, AgentView const&, std::string const&, IgmpHostPort const* port) {
         if (port) samples.add(port->socketCounters().queued);
     }},
};

constexpr char end[] = "# EOF\n";

class MetricsPieces : public JsonElements {
  public:
    explicit MetricsPieces(AgentView const& view) : text_(view) {}
    bool next(JsonStream& stream) override {
        std::string piece;
        if (!text_.next(piece)) return false;
        if (!piece.empty()) stream.addElement(piece);
        return true;
    }

  private:
    MetricsText text_;
};

} // namespace

bool MetricsText::next(std::string& text) {
    if (family_ > std::size(families)) return false;
    if (family_ == std::size(families)) {
        text += end;
        ++family_;
    } else if (!std::exchange(begun_, true)) {
        doBeginFamily(text);
    } else if (place_) {
        doCountGroups(text);
    } else if (families[family_].add || !doNextInterface(text)) {
        begun_ = false;
        interface_.reset();
        ++family_;
    }
    return true;
}

void MetricsText::doBeginFamily(std::string& text) const {
    Family const& family = families[family_];
    text += fmt::format("# HELP {0} {2}\n# TYPE {0} {1}\n", family.name, family.type, family.help);
    if (*family.unit) text += fmt::format("# UNIT {} {}\n", family.name, family.unit);
    Samples samples(text, family.name);
    if (family.add) family.add(samples, view_);
}

bool MetricsText::doNextInterface(std::string& text) {
    auto const* const found = view_.nextInterface(interface_);
    if (!found) return false;
    interface_ = found->first;
    labels_ = {{"interface", found->first}, {"vrf", found->second.vrf}};
    IgmpHostPort const* const port = view_.ports.port(*interface_);
    if (auto const add = families[family_].addInterface) {
        Samples samples(text, families[family_].name, labels_);
        add(samples, view_, *interface_, port);
    } else if (port && port->host()) {
        place_.emplace(*port->host());
        counts_ = {};
    }
    return true;
}

void MetricsText::doCountGroups(std::string& text) {
    for (unsigned left = mostGroupsInPiece; left > 0; --left) {
        if (place_->at == place_->groups.end()) {
            Samples samples(text, families[family_].name, labels_);
            for (std::size_t i = 0; i < originNames.size(); ++i)
                samples.add(counts_[i], {{"origin", originNames[i]}});
            return place_.reset();
        }
        auto const wanted = originsOf(view_, *interface_, (*place_->at).key);
        for (std::size_t i = 0; i < wanted.size(); ++i) counts_[i] += wanted[i];
        ++place_->at;
    }
}

std::unique_ptr<JsonElements> metricsAnswer(AgentView const& view) {
    return std::make_unique<MetricsPieces>(view);
}

} // namespace Agent

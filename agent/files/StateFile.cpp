#include "agent/files/StateFile.h"

#include "Nex/Error.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace Agent {

namespace {

constexpr std::string_view magic = "ihproxyd";
constexpr std::uint32_t formatVersion = 2;
constexpr std::uint32_t excludeBit = 0x80000000;
constexpr std::uint32_t memberBit = 0x40000000;
constexpr std::size_t checksumOctets = 8;

constexpr std::uint64_t emptyChecksum = 0xCBF29CE484222325;

std::uint64_t checksumOf(std::string_view text, std::uint64_t hash = emptyChecksum) {
    for (char const c : text) hash = (hash ^ std::uint8_t(c)) * 0x100000001B3;
    return hash;
}

/// Takes a text apart from its front.
class StateReader {
  public:
    explicit StateReader(std::string_view text) : rest_(text) {}

    bool empty() const { return rest_.empty(); }
    std::string_view text(std::size_t length) {
        if (length > rest_.size()) throw Nex::ParseException("it ends too early");
        std::string_view const text = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return text;
    }
    std::uint64_t number(unsigned octets) {
        std::uint64_t number = 0;
        for (char const c : text(octets)) number = number << 8 | std::uint8_t(c);
        return number;
    }
    Lox::IpAddr address() { return Lox::IpAddr::fromHost(std::uint32_t(number(4))); }

  private:
    std::string_view rest_;
};

void readGroup(StateReader& reader, RecordList& groups) {
    Lox::IpAddr const group = reader.address();
    if (!group.isMulticast()) throw Nex::ParseException("a group is not multicast");
    auto const head = std::uint32_t(reader.number(4));
    groups.addRecord(head & memberBit    ? RecordType::member
                     : head & excludeBit ? RecordType::isEx
                                         : RecordType::isIn,
                     group);
    for (std::uint32_t left = head & ~(memberBit | excludeBit); left > 0; --left)
        groups.addSource(reader.address());
}

} // namespace

StateText::StateText() : checksum_(emptyChecksum) {
    text_ = magic;
    addNumber(formatVersion, 4);
}

void StateText::addInterface(InterfaceState const& interface) {
    addText(interface.name, 1);
    addText(interface.namespaceName, 2);
    std::size_t const countAt = text_.size();
    addNumber(0, 4);
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < interface.groups.size(); ++i) {
        GroupRecord const record = interface.groups.record(i);
        // An octet more than a record takes on the wire, for the end.
        if (takenOctets_ + text_.size() + record.octets() + checksumOctets >= mostOctets) {
            truncated_ = true;
            break;
        }
        addNumber(record.group.host(), 4);
        addNumber(record.sources.size() | (record.type == RecordType::isEx     ? excludeBit
                                           : record.type == RecordType::member ? memberBit
                                                                               : 0),
                  4);
        for (Lox::IpAddr const source : record.sources) addNumber(source.host(), 4);
        ++count;
    }
    for (unsigned i = 0; i < 4; ++i) text_[countAt + i] = char(count >> (24 - 8 * i));
}

void StateText::endAdd() {
    addNumber(0, 1);
    addNumber(checksumOf(text_, checksum_), checksumOctets);
}

std::string StateText::take() {
    checksum_ = checksumOf(text_, checksum_);
    takenOctets_ += text_.size();
    return std::exchange(text_, {});
}

void StateText::addText(std::string const& text, unsigned lengthOctets) {
    addNumber(text.size(), lengthOctets);
    text_ += text;
}

void StateText::addNumber(std::uint64_t number, unsigned octets) {
    while (octets-- > 0) text_ += char(number >> (8 * octets));
}

std::vector<InterfaceState> stateParse(std::string_view text) {
    StateReader reader(text);
    if (reader.text(magic.size()) != magic) throw Nex::ParseException("it is of another kind");
    if (reader.number(4) != formatVersion) throw Nex::ParseException("it has another version");
    std::size_t const end = text.size() < checksumOctets ? 0 : text.size() - checksumOctets;
    if (StateReader(text.substr(end)).number(checksumOctets) != checksumOf(text.substr(0, end)))
        throw Nex::ParseException("its checksum is wrong");
    std::vector<InterfaceState> interfaces;
    while (std::uint64_t const length = reader.number(1)) {
        InterfaceState& interface = interfaces.emplace_back();
        interface.name = reader.text(length);
        interface.namespaceName = reader.text(reader.number(2));
        for (std::uint64_t left = reader.number(4); left > 0; --left)
            readGroup(reader, interface.groups);
    }
    reader.number(checksumOctets);
    if (!reader.empty()) throw Nex::ParseException("it has more octets than it tells of");
    return interfaces;
}

std::vector<InterfaceState> stateRead(std::string const& file) {
    if (!std::filesystem::exists(file)) return {};
    if (!std::filesystem::is_regular_file(file)) throw std::runtime_error("not a regular file");
    if (std::filesystem::file_size(file) > 2 * StateText::mostOctets)
        throw std::runtime_error("too long");
    std::string text(std::filesystem::file_size(file), '\0');
    std::ifstream stream(file, std::ios::binary);
    if (!stream.read(text.data(), std::streamsize(text.size())))
        throw std::runtime_error("cannot be read");
    return stateParse(text);
}

} // namespace Agent

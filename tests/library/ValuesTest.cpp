// The key of the reference counter: order, hash and text form.
#include "IgmpHostProxy/SourceGroup.h"
#include "Nex/Error.h"

#include <array>
#include <gtest/gtest.h>
#include <sstream>

namespace IgmpHostProxy {
namespace {

SourceGroup pair(char const* source, char const* group) {
    return {Lox::IpAddr(source), Lox::IpAddr(group)};
}

TEST(SourceGroup, OrdersByGroupFirstWhateverTheSources) {
    SourceGroup const ascending[] = {
        pair("0.0.0.0", "239.1.1.1"),  pair("9.255.255.255", "239.1.1.1"),
        pair("10.0.0.1", "239.1.1.1"), pair("223.0.0.1", "239.1.1.1"),
        pair("0.0.0.0", "239.1.1.2"),
    };
    for (auto const& a : ascending)
        for (auto const& b : ascending) EXPECT_TRUE((a <=> b) == (&a <=> &b)) << a << b;
}

// The expected numbers were computed apart from this program.
TEST(SourceGroup, HashesTheGroupBeforeTheSource) {
    EXPECT_EQ(pair("10.0.0.1", "239.1.1.1").hash(), 0x72832a95u);
    EXPECT_EQ(pair("239.1.1.1", "10.0.0.1").hash(), 0xef55fef4u);
    EXPECT_EQ(pair("192.168.200.254", "239.255.255.250").hash(), 0x3a5b5c62u);
    EXPECT_EQ(SourceGroup().hash(), 0u);
}

TEST(SourceGroup, ParsesItsOwnTextAndNoOther) {
    SourceGroup const value = pair("10.0.0.1", "239.1.1.1");
    std::string const text = "Value('IgmpHostProxy::SourceGroup', ** {'sourceAddr': 10.0.0.1, "
                             "'groupAddr': 239.1.1.1})";
    std::ostringstream out;
    out << value;
    EXPECT_EQ(out.str(), text);
    EXPECT_EQ(strepToValue(text), value);
    for (std::size_t length = 0; length < text.size(); ++length)
        EXPECT_THROW(strepToValue(text.substr(0, length)), Nex::ParseException) << length;
    EXPECT_THROW(strepToValue(text + " "), Nex::ParseException);

    for (auto const& [part, instead, error] :
         std::initializer_list<std::array<std::string, 3>>{{"10.0.0.1", "10.0.0.256", "sourceAddr"},
                                                           {"10.0.0.1", "", "sourceAddr"},
                                                           {"239.1.1.1", "239.1.1", "groupAddr:"},
                                                           {"239.1.1.1", "x", "groupAddr:"}}) {
        std::string wrong = text;
        wrong.replace(wrong.find(part), part.size(), instead);
        try {
            ADD_FAILURE() << strepToValue(wrong);
        } catch (Nex::ParseException const& told) {
            EXPECT_EQ(std::string(told.what(), 0, 10), error);
        }
    }
}

} // namespace
} // namespace IgmpHostProxy

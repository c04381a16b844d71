// Value types and the service of source interfaces.
#include "Ip/SourceIntf.h"
#include "Lox/Names.h"

#include <gtest/gtest.h>

namespace {

using Lox::IpAddr;

TEST(IpAddrTest, TextsAreFourNumbersAndNothingElse) {
    for (char const* text : {"0.0.0.0", "255.255.255.255", "239.1.20.3"})
        EXPECT_EQ(IpAddr(text).stringValue(), text);
    EXPECT_EQ(IpAddr("1.2.3.4").host(), 0x01020304u);
    for (char const* text :
         {"",           ".",        "1.2.3",     "1.2.3.",    "1.2.3.4.",
          ".1.2.3.4",   "1..2.3",   "1.2.3.4.5", "256.0.0.1", "1.2.3.256",
          "1.2.3.0004", "-1.2.3.4", "+1.2.3.4",  " 1.2.3.4",  "1.2.3.4 ",
          "1.2.3.4x",   "a.b.c.d",  "0x1.2.3.4", "1,2,3,4",   "99999999999.2.3.4"})
        EXPECT_THROW(IpAddr{text}, Nex::ParseException) << text;
    EXPECT_THROW(IpAddr(std::string_view("1.2.3.4\0", 8)), Nex::ParseException);
    EXPECT_EQ(IpAddr(std::string_view("1.2.3.45", 7)), IpAddr("1.2.3.4")) << "no end is read past";
}

TEST(NamespaceNameTest, HoldsUpTo150Octets) {
    EXPECT_EQ(Lox::NamespaceName(std::string(150, 'n')).stringValue().size(), 150u);
    try {
        Lox::NamespaceName const longer(std::string(151, 'n'));
        FAIL() << longer;
    } catch (Nex::RangeException const& error) {
        EXPECT_STREQ(error.what(), "NamespaceName::bytes > 150 not allowed");
    }
}

TEST(SourceIntfTest, ObjectIsTheSameAsLongAsAnybodyHoldsIt) {
    Lox::IntfId const up0{"up0"};
    auto const service = Ip::SourceIntf::SourceIntfSm::SourceIntfSmIs();
    auto held = service->registerSourceIntf(up0);
    held = nullptr;
    ASSERT_NE(service->sourceIntf(up0), nullptr) << "it holds what is registered";
    held = service->sourceIntf(up0);
    service->unregisterSourceIntf(held);
    EXPECT_EQ(service->registerSourceIntf(up0), held);
    service->unregisterSourceIntf(held);
    EXPECT_EQ(service->sourceIntf(up0), held.get());
    held = nullptr;
    EXPECT_EQ(service->sourceIntf(up0), nullptr);
}

} // namespace

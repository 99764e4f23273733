#include "net/optionmap.h"

#include <gtest/gtest.h>


namespace {

using net::OptionMap;

OptionMap parsed(const char * text) {
    OptionMap map;
    map.parse(text);
    return map;
}

TEST(OptionMap, GrammarOfItemsKeysAndValues) {
    EXPECT_EQ(parsed("a=1;a=2").get("a", "x"), "2");
    EXPECT_EQ(parsed("a").get("a", "x"), "");
    EXPECT_EQ(parsed("a=b=c").get("a", "x"), "b=c");
    EXPECT_EQ(parsed("b=2;a=1").toString(), "a=1;b=2;");
    EXPECT_EQ(parsed(" a = 1 ").get(" a ", "x"), " 1 ");
    EXPECT_EQ(parsed("A=1").get("a", "default"), "default");
    EXPECT_EQ(parsed("a=1;").size(), 1u);
    EXPECT_EQ(parsed(";a=1;;").toString(), "=;a=1;");
    EXPECT_TRUE(parsed(nullptr).empty());
    EXPECT_TRUE(parsed("").empty());
}

TEST(OptionMap, OnlyExactTrueIsTrue) {
    OptionMap map = parsed("EnableProxy=True;x=1;y=true");
    EXPECT_TRUE(map.hasEnableProxy());
    EXPECT_FALSE(OptionMap::isTrue(map.get("EnableProxy", "true")));
    EXPECT_FALSE(OptionMap::isTrue(map.get("x", "true")));
    EXPECT_TRUE(OptionMap::isTrue(map.get("y", "false")));
    EXPECT_FALSE(parsed("EnableProxyX=1").hasEnableProxy());
    map.set("EnableProxy", "true");
    EXPECT_EQ(map.toString(), "EnableProxy=true;x=1;y=true;");
}

}  // namespace

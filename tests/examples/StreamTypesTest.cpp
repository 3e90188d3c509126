#include "StreamTypes.h"

#include <gtest/gtest.h>

namespace {

using tsmon::DescribeStream;
using tsmon::LanguageOf;

TEST(StreamTypesTest, CommonTypesHaveTheirNames)
{
    EXPECT_EQ(DescribeStream(0x01, {}), "MPEG-1 video");
    EXPECT_EQ(DescribeStream(0x02, {}), "MPEG-2 video");
    EXPECT_EQ(DescribeStream(0x03, {}), "MPEG-1 audio");
    EXPECT_EQ(DescribeStream(0x0F, {}), "AAC audio");
    EXPECT_EQ(DescribeStream(0x1B, {}), "H.264 video");
    EXPECT_EQ(DescribeStream(0x24, {}), "H.265 video");
    EXPECT_EQ(DescribeStream(0x81, {}), "AC-3 audio");
}

TEST(StreamTypesTest, UnlistedTypesAreReservedOrPrivate)
{
    EXPECT_EQ(DescribeStream(0x00, {}), "reserved");
    EXPECT_EQ(DescribeStream(0x7E, {}), "reserved");
    EXPECT_EQ(DescribeStream(0x90, {}), "user private");
    EXPECT_EQ(DescribeStream(0xFF, {}), "user private");
}

TEST(StreamTypesTest, PrivateDataIsToldByItsDescriptors)
{
    EXPECT_EQ(DescribeStream(0x06, {}), "private data");
    EXPECT_EQ(DescribeStream(0x06, {{0x52, "\x01"}, {0x6A, ""}}), "AC-3 audio");
    EXPECT_EQ(DescribeStream(0x06, {{0x7A, ""}}), "E-AC-3 audio");
    EXPECT_EQ(DescribeStream(0x06, {{0x56, "deu"}}), "teletext");
    EXPECT_EQ(DescribeStream(0x06, {{0x59, "deu"}}), "DVB subtitles");
    EXPECT_EQ(DescribeStream(0x06, {{0x05, "HEVC"}}), "H.265 video");
    EXPECT_EQ(DescribeStream(0x06, {{0x05, "AC-3more"}}), "AC-3 audio");
    EXPECT_EQ(DescribeStream(0x06, {{0x05, "AC"}}), "private data");
}

TEST(StreamTypesTest, DescriptorsDoNotRenameOtherTypes)
{
    EXPECT_EQ(DescribeStream(0x02, {{0x6A, ""}}), "MPEG-2 video");
}

TEST(StreamTypesTest, FirstLanguageIsTaken)
{
    EXPECT_EQ(LanguageOf({{0x52, "xyz"}, {0x0A, {"deu\0eng\0", 8}}, {0x56, "fra"}}), "deu");
    EXPECT_EQ(LanguageOf({{0x56, "fra\x09"}}), "fra");
    EXPECT_EQ(LanguageOf({{0x59, "ENG\x10"}}), "ENG");
}

TEST(StreamTypesTest, WhatIsNoLanguageIsNotTaken)
{
    EXPECT_EQ(LanguageOf({}), "");
    EXPECT_EQ(LanguageOf({{0x0A, "de"}}), "");
    EXPECT_EQ(LanguageOf({{0x0A, "\x1B[m"}}), "");
}

} // namespace

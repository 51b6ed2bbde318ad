#include "BaseTest.h"
#include "ZqImageAddress.h"
#include "ZqNetLink.h"

TEST(ImageAddress, WhatCameInsteadOfTheRecordIsTold) {
    const SxException wrong(ZqNetLink::WRONG, "unreadable", "", 0);
    struct Case {
        const char *text, *told;
        ZqImageAddress::Kind kind;
    };
    const Case cases[] = {
        {"\xef\xbb\xbf\n<HTML><title>Index of /games</title>", "a listing of files", ZqImageAddress::Listing},
        {"<html><h1>Directory listing for /</h1><a href=login.html>", "a listing", ZqImageAddress::Listing},
        {"<html><input TYPE=\"password\">", "one to log in to", ZqImageAddress::Login},
        {"<html><p>Please sign in", "--header", ZqImageAddress::Login},
        {"<!doctype html><p>Welcome", "one for browsers", ZqImageAddress::Page},
        {"{\"name\": 1}", "that of something else", ZqImageAddress::OtherJson},
        {"[1]", "that of something else", ZqImageAddress::OtherJson},
        {"", "no JSON", ZqImageAddress::Other},
        {"hello", "no JSON", ZqImageAddress::Other},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.text);
        EXPECT_EQ(ZqImageAddress::kindOf(each.text), each.kind);
        const SxException told = ZqImageAddress::other("http://u:p@host/game?token=x", each.kind, wrong);
        EXPECT_TRUE(told.hasTag(ZqNetLink::WRONG)) << "what is to be done goes by it";
        EXPECT_THAT(told.what(), AllOf(HasSubstr("No image at this address, http://host/game?...: "),
                                       HasSubstr(each.told), HasSubstr("app.json, img.json, img.idx and")));
    }
    // A record that can't be used says itself why, as one of a newer format does.
    const SxString record = R"({"zqfVersion": 9, "checksums": {}})";
    EXPECT_EQ(ZqImageAddress::kindOf(record), ZqImageAddress::Record);
    EXPECT_STREQ(ZqImageAddress::other("http://host/", ZqImageAddress::Record, wrong).what(), "unreadable");
}

TEST(ImageAddress, AFilesAddressAndAPathAreToldApart) {
    const SxException none(ZqNetLink::NOT_FOUND, "404", "", 0);
    EXPECT_THAT(ZqImageAddress::absent("http://host/game/app.json/?t=1", none).what(),
                HasSubstr("leave 'app.json' away"));
    EXPECT_THAT(ZqImageAddress::absent("http://host/app.json.d", none).what(), HasSubstr("has no app.json"));
    const TempDir dir;
    dir.write("image/app.json", "{}");
    EXPECT_THAT(failureOf([&] { ZqImageAddress::require(SxString(dir.path("image"))); }),
                HasSubstr("an image folder of this machine"));
    for (const char* url : {"ftp://host/game", "host/game", "/nowhere", "http:/host", "http://", "https:///game"})
        EXPECT_THAT(failureOf([&] { ZqImageAddress::require(url); }), HasSubstr("http://")) << url;
    EXPECT_NO_THROW(ZqImageAddress::require("HTTPS://host"));
}

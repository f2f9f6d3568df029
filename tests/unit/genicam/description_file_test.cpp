// Description URLs and archives.
#include "genicam/DescriptionFile.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using namespace zuGenICam;
using Bytes = std::vector<std::uint8_t>;

TEST(UrlTest, local)
{
    const auto url = parseLocalUrl("Local:camera.zip;20000000;1F4");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->fileName, "camera.zip");
    EXPECT_EQ(url->address, 0x20000000u);
    EXPECT_EQ(url->size, 0x1F4u);
    EXPECT_EQ(parseLocalUrl("local:///a.xml;0x10;0X20")->address, 0x10u);
    EXPECT_EQ(parseLocalUrl("LOCAL:a.xml;10;20?SchemaVersion=1.1.0")->size, 0x20u);
    EXPECT_EQ(parseLocalUrl("Local: a b.xml ; 10 ; 20 ")->size, 0x20u);
    EXPECT_EQ(parseLocalUrl("Local:a.xml;FFFFFFFF;1")->address, 0xFFFFFFFFu);
}

TEST(UrlTest, whatIsNotLocal)
{
    for (const char* const bad :
         {"", "Local:", "Local:a.xml", "Local:a.xml;10", "Local:a.xml;10;", "Local:a.xml;;10", "Local:a.xml;10;0",
          "Local:a.xml;10;g", "Local:a.xml;1FFFFFFFF;1", "Local:a.xml;FFFFFFFF;2", "File:a.xml", "http://x/a.xml",
          "Loca", "Local:a.xml;-1;10"})
        EXPECT_FALSE(parseLocalUrl(bad)) << bad;
}

TEST(UrlTest, everyTruncationIsRefusedOrShorter)
{
    const std::string whole = "Local:camera.zip;20000000;1F4";
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const auto url = parseLocalUrl(whole.substr(0, size));
        EXPECT_EQ(url.has_value(), size >= whole.size() - 2) << size;
    }
}

Bytes makeZip(const std::vector<std::pair<std::string, std::string>>& files)
{
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* const target = zip_source_buffer_create(nullptr, 0, 0, &error);
    zip_source_keep(target);
    zip_t* const archive = zip_open_from_source(target, ZIP_CREATE | ZIP_TRUNCATE, &error);
    for (const auto& [name, text] : files)
        zip_file_add(archive, name.c_str(), zip_source_buffer(archive, text.data(), text.size(), 0), 0);
    EXPECT_EQ(zip_close(archive), 0);
    zip_source_open(target);
    zip_source_seek(target, 0, SEEK_END);
    Bytes bytes(static_cast<std::size_t>(zip_source_tell(target)));
    zip_source_seek(target, 0, SEEK_SET);
    zip_source_read(target, bytes.data(), bytes.size());
    zip_source_close(target);
    zip_source_free(target);
    zip_error_fini(&error);
    return bytes;
}

std::string text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

TEST(ZipTest, takesTheXmlOrElseTheFirstFile)
{
    const std::string xml = "<RegisterDescription/>" + std::string(100000, ' ');
    EXPECT_EQ(text(unzip(makeZip({{"readme.txt", "no"}, {"camera.XML", xml}}), 1 << 20)), xml);
    EXPECT_EQ(text(unzip(makeZip({{"dir/", ""}, {"a.txt", "first"}, {"b.txt", "second"}}), 1 << 20)), "first");
    EXPECT_TRUE(isZip(makeZip({{"a", "b"}})));
    EXPECT_FALSE(isZip({'<', '?', 'x', 'm'}));
    EXPECT_FALSE(isZip({'P', 'K', 3}));
}

TEST(ZipTest, refusesWhatUnfoldsTooFar)
{
    const Bytes bomb = makeZip({{"a.xml", std::string(1 << 20, 'x')}});
    EXPECT_LT(bomb.size(), 10000u);
    EXPECT_THROW(unzip(bomb, (1 << 20) - 1), std::runtime_error);
    EXPECT_EQ(unzip(bomb, 1 << 20).size(), 1u << 20);
}

TEST(ZipTest, damageIsAnErrorAndNoMore)
{
    EXPECT_THROW(unzip({}, 1 << 20), std::runtime_error);
    EXPECT_THROW(unzip({'P', 'K', 3, 4}, 1 << 20), std::runtime_error);
    std::string content;
    for (int i = 0; i < 2000; ++i)
        content += std::to_string(i * 7919);
    const Bytes whole = makeZip({{"a.xml", content}});
    for (std::size_t size = 0; size < whole.size(); size += 7)
        EXPECT_THROW(unzip(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)), 1 << 20),
                     std::runtime_error)
            << size;
    int damaged = 0;
    for (std::size_t at = 0; at < whole.size(); at += 3) {
        Bytes bytes = whole;
        bytes[at] ^= 0x55;
        try {
            unzip(bytes, 1 << 20);
        } catch (const std::runtime_error&) {
            ++damaged;
        }
    }
    EXPECT_GT(damaged, 100); // all of the packed content, for one
}

} // namespace

// The GenICam file: found through the URL register, read as a client reads it, plain and zipped.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"
#include "tools/gevsim/genicam.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

using namespace gevsimTest;
using gevsim::Camera;
using gevsim::Config;
namespace reg = gevsim::reg;

namespace {

struct Downloaded {
    std::string name;
    Bytes content;
};

Downloaded download(Client& client)
{
    const Bytes url = client.ask(readMem(reg::firstUrl, 512));
    const std::string line(reinterpret_cast<const char*>(url.data()) + 12);
    char name[64] = {};
    unsigned address = 0, size = 0;
    EXPECT_EQ(std::sscanf(line.c_str(), "Local:%63[^;];%x;%x", name, &address, &size), 3) << line;
    Downloaded file{name, {}};
    while (file.content.size() < size) {
        const std::size_t left = size - file.content.size();
        const auto block = static_cast<std::uint16_t>(std::min<std::size_t>(512, (left + 3) / 4 * 4));
        const Bytes ack = client.ask(readMem(address + static_cast<std::uint32_t>(file.content.size()), block));
        if (ack.size() != 12U + block) {
            ADD_FAILURE() << text(ack);
            break;
        }
        file.content.insert(file.content.end(), ack.begin() + 12,
                            ack.begin() + 12 + static_cast<std::ptrdiff_t>(std::min<std::size_t>(block, left)));
    }
    return file;
}

std::uint32_t little(const Bytes& data, std::size_t at, int count)
{
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i)
        value |= static_cast<std::uint32_t>(data.at(at + static_cast<std::size_t>(i))) << (8 * i);
    return value;
}

/// Unpacks the one file of an archive from its local header, and compares it with the central directory.
std::string unzip(const Bytes& archive, std::string& name)
{
    EXPECT_EQ(little(archive, 0, 4), 0x04034B50U);
    EXPECT_EQ(little(archive, 8, 2), 8U) << "deflate";
    const std::uint32_t packed = little(archive, 18, 4), plain = little(archive, 22, 4),
                        nameSize = little(archive, 26, 2);
    name.assign(archive.begin() + 30, archive.begin() + 30 + nameSize);
    std::string result(plain, '\0');
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, -15), Z_OK);
    stream.next_in = const_cast<Bytef*>(archive.data() + 30 + nameSize);
    stream.avail_in = packed;
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = plain;
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    inflateEnd(&stream);
    EXPECT_EQ(crc32(0, reinterpret_cast<const Bytef*>(result.data()), plain), little(archive, 14, 4));

    const std::size_t end = archive.size() - 22;
    EXPECT_EQ(little(archive, end, 4), 0x06054B50U);
    EXPECT_EQ(little(archive, end + 10, 2), 1U);
    const std::uint32_t directory = little(archive, end + 16, 4);
    EXPECT_EQ(directory, 30 + nameSize + packed);
    EXPECT_EQ(little(archive, directory, 4), 0x02014B50U);
    EXPECT_EQ(little(archive, directory + 20, 4), packed);
    EXPECT_EQ(little(archive, end + 12, 4), 46 + nameSize);
    return result;
}

} // namespace

TEST(Genicam, TheFileIsReadThroughTheUrl)
{
    Camera camera("127.0.13.1", 0);
    Client client(camera.endpoint());
    const Downloaded file = download(client);
    EXPECT_EQ(file.name, "gevsim.xml");
    EXPECT_EQ(std::string(file.content.begin(), file.content.end()), gevsim::genicamXml());
}

TEST(Genicam, TheZippedFileHoldsTheSame)
{
    Config config;
    config.endpoint = {"127.0.13.1", 0};
    config.zippedXml = true;
    Camera camera(config);
    Client client(camera.endpoint());
    const Downloaded file = download(client);
    EXPECT_EQ(file.name, "gevsim.zip");
    std::string name;
    EXPECT_EQ(unzip(file.content, name), gevsim::genicamXml());
    EXPECT_EQ(name, "gevsim.xml");
    EXPECT_LT(file.content.size(), gevsim::genicamXml().size() / 2);
}

TEST(Genicam, EveryReferenceHasItsNodeAndEveryRegisterItsPlace)
{
    boost::property_tree::ptree tree;
    std::istringstream stream(gevsim::genicamXml());
    boost::property_tree::read_xml(stream, tree);
    Camera camera("127.0.13.1", 0);
    std::set<std::string> names, references;
    for (const auto& [kind, node] : tree.get_child("RegisterDescription")) {
        if (kind == "<xmlattr>")
            continue;
        names.insert(node.get<std::string>("<xmlattr>.Name"));
        for (const auto& [child, value] : node) {
            if (child.size() > 1 && child[0] == 'p' && child[1] >= 'A' && child[1] <= 'Z')
                references.insert(value.data());
        }
        if (const auto address = node.get_optional<std::string>("Address")) {
            const auto at = static_cast<std::uint32_t>(std::stoul(*address, nullptr, 16));
            EXPECT_NO_THROW(camera.readMemory(at, std::stoul(node.get<std::string>("Length")))) << *address;
        }
    }
    for (const std::string& reference : references)
        EXPECT_EQ(names.count(reference), 1U) << reference;
    for (const char* feature :
         {"Width", "Height", "PixelFormat", "Gain", "ReverseX", "AcquisitionStart", "DeviceVendorName"})
        EXPECT_EQ(names.count(feature), 1U) << feature;
}

// The GenICam description, put together from the register map, and its zip archive.
#include "tools/gevsim/genicam.h"

#include "tools/gevsim/registers.h"
#include "tools/gevsim/wire.h"

#include <boost/crc.hpp>

#include <zlib.h>

#include <stdexcept>

namespace gevsim {

namespace {

std::string tag(const std::string& name, const std::string& value)
{
    return "<" + name + ">" + value + "</" + name + ">";
}

/// Builds the nodes and lists each feature in its category.
class Description {
public:
    void category(const std::string& name)
    {
        endCategory();
        category_ = name;
        categories_ += "    " + tag("pFeature", name) + "\n";
    }

    void integer(const std::string& name, std::uint32_t address, const std::string& access, const std::string& limits)
    {
        list(name);
        nodes_ += "  <Integer Name=\"" + name + "\">" + tag("pValue", name + "Reg") + limits + "</Integer>\n";
        intReg(name, address, access);
    }
    void real(const std::string& name, std::uint32_t address, const std::string& access, const std::string& limits)
    {
        list(name);
        nodes_ += "  <Float Name=\"" + name + "\">" + tag("pValue", name + "Reg") + limits + "</Float>\n";
        nodes_ += "  <FloatReg Name=\"" + name + "Reg\">" + place(address, 4, access) + tag("Endianess", "BigEndian") +
                  "</FloatReg>\n";
    }
    void boolean(const std::string& name, std::uint32_t address)
    {
        list(name);
        nodes_ += "  <Boolean Name=\"" + name + "\">" + tag("pValue", name + "Reg") + tag("OnValue", "1") +
                  tag("OffValue", "0") + "</Boolean>\n";
        intReg(name, address, "RW");
    }
    void command(const std::string& name, std::uint32_t address, std::uint32_t value)
    {
        list(name);
        nodes_ += "  <Command Name=\"" + name + "\">" + tag("pValue", name + "Reg") +
                  tag("CommandValue", std::to_string(value)) + "</Command>\n";
        intReg(name, address, "RW");
    }
    void text(const std::string& name, std::uint32_t address, std::uint32_t size, const std::string& access)
    {
        list(name);
        nodes_ += "  <StringReg Name=\"" + name + "\">" + place(address, size, access) + "</StringReg>\n";
    }
    struct Entry {
        const char* name;
        std::uint32_t value;
    };
    void enumeration(const std::string& name, std::uint32_t address, std::initializer_list<Entry> entries)
    {
        list(name);
        nodes_ += "  <Enumeration Name=\"" + name + "\">\n";
        for (const Entry& entry : entries)
            nodes_ += "    <EnumEntry Name=\"" + std::string(entry.name) + "\">" + tag("Value", hex(entry.value)) +
                      "</EnumEntry>\n";
        nodes_ += "    " + tag("pValue", name + "Reg") + "\n  </Enumeration>\n";
        intReg(name, address, "RW");
    }
    void formula(const std::string& name, const std::string& variables, const std::string& expression)
    {
        list(name);
        nodes_ +=
            "  <IntSwissKnife Name=\"" + name + "\">" + variables + tag("Formula", expression) + "</IntSwissKnife>\n";
    }

    std::string finish()
    {
        endCategory();
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<RegisterDescription ModelName=\"gevsim\" VendorName=\"SimulatedOptics\" ToolTip=\"Simulated camera\" "
               "StandardNameSpace=\"GEV\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" "
               "SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" "
               "ProductGuid=\"6E0B2C52-7E0B-4F9B-9C5C-1D3A0D6F1A01\" "
               "VersionGuid=\"6E0B2C52-7E0B-4F9B-9C5C-1D3A0D6F1A02\" "
               "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\" "
               "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
               "xsi:schemaLocation=\"http://www.genicam.org/GenApi/Version_1_1 "
               "http://www.genicam.org/GenApi/GenApiSchema_Version_1_1.xsd\">\n"
               "  <Category Name=\"Root\">\n" +
               categories_ + "  </Category>\n" + nodes_ + "  <Port Name=\"Device\"/>\n</RegisterDescription>\n";
    }

private:
    static std::string place(std::uint32_t address, std::uint32_t size, const std::string& access)
    {
        return tag("Address", hex(address)) + tag("Length", std::to_string(size)) + tag("AccessMode", access) +
               tag("pPort", "Device") + tag("Cachable", "NoCache");
    }
    void intReg(const std::string& name, std::uint32_t address, const std::string& access)
    {
        nodes_ += "  <IntReg Name=\"" + name + "Reg\">" + place(address, 4, access) + tag("Sign", "Unsigned") +
                  tag("Endianess", "BigEndian") + "</IntReg>\n";
    }
    void list(const std::string& name) { features_ += "    " + tag("pFeature", name) + "\n"; }
    void endCategory()
    {
        if (!category_.empty())
            nodes_ += "  <Category Name=\"" + category_ + "\">\n" + features_ + "  </Category>\n";
        features_.clear();
    }

    std::string categories_, nodes_, features_, category_;
};

std::string limits(std::uint32_t least, std::uint32_t most, std::uint32_t step)
{
    return tag("Min", std::to_string(least)) + tag("Max", std::to_string(most)) + tag("Inc", std::to_string(step));
}

std::vector<std::uint8_t> deflated(const std::string& text)
{
    z_stream stream{};
    constexpr int rawDeflate = -15;
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, rawDeflate, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("compressing the GenICam file failed");
    std::vector<std::uint8_t> packed(deflateBound(&stream, static_cast<uLong>(text.size())));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    const int result = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        throw std::runtime_error("compressing the GenICam file failed");
    return packed;
}

/// An archive of one deflated file: local header, data, central directory, end record.
std::vector<std::uint8_t> zipArchive(const std::string& name, const std::string& text)
{
    const std::vector<std::uint8_t> packed = deflated(text);
    boost::crc_32_type crc;
    crc.process_bytes(text.data(), text.size());

    std::vector<std::uint8_t> out;
    const auto little = [&out](std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    // What local header and directory entry have in common.
    const auto common = [&] {
        little(20, 2);     // version that can unpack it
        little(0, 2);      // flags
        little(8, 2);      // deflate
        little(0, 2);      // time
        little(0x5821, 2); // date: 2024-01-01
        little(crc.checksum(), 4);
        little(static_cast<std::uint32_t>(packed.size()), 4);
        little(static_cast<std::uint32_t>(text.size()), 4);
        little(static_cast<std::uint32_t>(name.size()), 2);
        little(0, 2); // extra field
    };
    little(0x04034B50, 4);
    common();
    out.insert(out.end(), name.begin(), name.end());
    out.insert(out.end(), packed.begin(), packed.end());

    const auto directory = static_cast<std::uint32_t>(out.size());
    little(0x02014B50, 4);
    little(20, 2); // made by
    common();
    little(0, 2); // comment
    little(0, 2); // disk
    little(0, 2); // internal attributes
    little(0, 4); // external attributes
    little(0, 4); // offset of the local header
    out.insert(out.end(), name.begin(), name.end());

    const auto directorySize = static_cast<std::uint32_t>(out.size()) - directory;
    little(0x06054B50, 4);
    little(0, 4); // disks
    little(1, 2); // entries on this disk
    little(1, 2); // entries
    little(directorySize, 4);
    little(directory, 4);
    little(0, 2); // comment
    return out;
}

} // namespace

std::string genicamXml()
{
    Description xml;
    xml.category("DeviceControl");
    xml.text("DeviceVendorName", reg::manufacturerName, 32, "RO");
    xml.text("DeviceModelName", reg::modelName, 32, "RO");
    xml.text("DeviceManufacturerInfo", reg::manufacturerInfo, 48, "RO");
    xml.text("DeviceVersion", reg::deviceVersion, 32, "RO");
    xml.text("DeviceSerialNumber", reg::serialNumber, 16, "RO");
    xml.text("DeviceUserID", reg::userDefinedName, 16, "RW");
    xml.real("DeviceTemperature", feature::temperature, "RO", tag("Unit", "C"));

    xml.category("ImageFormatControl");
    xml.integer("SensorWidth", feature::sensorWidth, "RO", {});
    xml.integer("SensorHeight", feature::sensorHeight, "RO", {});
    xml.integer("Width", feature::width, "RW", limits(16, genicamSensorWidth, 4));
    xml.integer("Height", feature::height, "RW", limits(16, genicamSensorHeight, 2));
    xml.integer("OffsetX", feature::offsetX, "RW", limits(0, genicamSensorWidth - 16, 4));
    xml.integer("OffsetY", feature::offsetY, "RW", limits(0, genicamSensorHeight - 16, 2));
    xml.boolean("ReverseX", feature::reverseX);
    xml.enumeration("PixelFormat", feature::pixelFormat, {{"Mono8", 0x01080001}, {"Mono16", 0x01100007}});

    xml.category("AcquisitionControl");
    xml.enumeration("AcquisitionMode", feature::acquisitionMode, {{"Continuous", 0}, {"SingleFrame", 1}});
    xml.command("AcquisitionStart", feature::acquisitionStart, 1);
    xml.command("AcquisitionStop", feature::acquisitionStop, 1);
    xml.integer("AcquisitionStatus", feature::acquisitionStatus, "RO", {});
    xml.real("ExposureTime", feature::exposureTime, "RW",
             tag("Min", "10.0") + tag("Max", "1000000.0") + tag("Unit", "us"));

    xml.category("AnalogControl");
    xml.real("Gain", feature::gain, "RW", tag("Min", "0.0") + tag("Max", "24.0") + tag("Unit", "dB"));

    xml.category("TestControl");
    xml.integer("TestValue", feature::testValue, "RW", limits(0, 0xFFFFFFFF, 1));
    xml.text("TestText", feature::testText, 32, "RW");

    xml.category("TransportLayerControl");
    xml.formula("PayloadSize",
                "<pVariable Name=\"W\">Width</pVariable><pVariable Name=\"H\">Height</pVariable>"
                "<pVariable Name=\"F\">PixelFormatReg</pVariable>",
                "W * H * ((F &gt;&gt; 16) &amp; 0xFF) / 8");
    xml.integer("GevVersion", reg::version, "RO", {});
    xml.integer("GevCurrentIPAddress", reg::currentIp, "RO", {});
    xml.integer("GevHeartbeatTimeout", reg::heartbeatTimeout, "RW", {});
    xml.integer("GevSCPHostPort", reg::streamPort, "RW", {});
    xml.integer("GevSCPSPacketSize", reg::streamPacketSize, "RW", {});
    xml.integer("GevSCDA", reg::streamDestination, "RW", {});
    xml.integer("GevTimestampTickFrequency", reg::tickFrequencyLow, "RO", {});
    xml.command("GevTimestampControlLatch", reg::timestampControl, 2);
    xml.integer("GevTimestampValue", reg::timestampLow, "RO", {});
    return xml.finish();
}

GenicamFile makeGenicamFile(bool zipped)
{
    const std::string xml = genicamXml();
    if (zipped)
        return {"gevsim.zip", zipArchive("gevsim.xml", xml)};
    return {"gevsim.xml", {xml.begin(), xml.end()}};
}

} // namespace gevsim

// The GenICam description, put together from the register map, and its zip archive.
#include "tools/gevsim/genicam.h"

#include "tools/gevsim/picture.h"
#include "tools/gevsim/registers.h"
#include "tools/gevsim/stream_types.h"
#include "tools/gevsim/wire.h"

#include <boost/crc.hpp>

#include <zlib.h>

#include <stdexcept>
#include <utility>

namespace gevsim {

namespace {

std::string tag(const std::string& name, const std::string& value)
{
    return "<" + name + ">" + value + "</" + name + ">";
}

/// Builds the nodes and lists each feature in its category. `more` is what stands in a node besides, such as limits and
/// references to the nodes that lock it.
class Description {
public:
    void category(const std::string& name)
    {
        endCategory();
        category_ = name;
        categories_ += "    " + tag("pFeature", name) + "\n";
    }

    void integer(const std::string& name, std::uint32_t address, const std::string& access, const std::string& more)
    {
        feature(name, "Integer", more + tag("pValue", name + "Reg"));
        intReg(name, address, access);
    }
    /// Some bits of a register, counted from its highest one.
    void bits(const std::string& name, std::uint32_t address, unsigned first, unsigned last, const std::string& access,
              const std::string& more)
    {
        feature(name, "Integer", more + tag("pValue", name + "Reg"));
        masked(name, address, first, last, access);
    }
    void real(const std::string& name, std::uint32_t address, const std::string& access, const std::string& more)
    {
        feature(name, "Float", more + tag("pValue", name + "Reg"));
        node("FloatReg", name + "Reg", place(address, 4, access) + tag("Endianess", "BigEndian"));
    }
    void boolean(const std::string& name, std::uint32_t address, const std::string& more = {})
    {
        feature(name, "Boolean", more + onOff(name));
        intReg(name, address, "RW");
    }
    void flag(const std::string& name, std::uint32_t address, unsigned bit)
    {
        feature(name, "Boolean", onOff(name));
        masked(name, address, bit, bit, "RW");
    }
    void command(const std::string& name, std::uint32_t address, std::uint32_t value, const std::string& more = {})
    {
        feature(name, "Command", more + tag("pValue", name + "Reg") + tag("CommandValue", std::to_string(value)));
        intReg(name, address, "RW");
    }
    void text(const std::string& name, std::uint32_t address, std::uint32_t size, const std::string& access)
    {
        feature(name, "StringReg", place(address, size, access));
    }
    struct Entry {
        const char* name;
        std::uint32_t value;
    };
    using Entries = std::vector<Entry>;
    void enumeration(const std::string& name, std::uint32_t address, const Entries& entries,
                     const std::string& more = {}, const std::string& access = "RW")
    {
        choice(name, entries, more);
        intReg(name, address, access);
    }
    void flagChoice(const std::string& name, std::uint32_t address, unsigned bit, const Entries& entries)
    {
        choice(name, entries, {});
        masked(name, address, bit, bit, "RW");
    }
    /// `variables` are pairs of the name in the formula and the node.
    using Variables = std::vector<std::pair<std::string, std::string>>;
    void formula(const std::string& name, const Variables& variables, const std::string& expression)
    {
        list(name);
        hiddenFormula("IntSwissKnife", name, variables, expression);
    }
    void hiddenFormula(const std::string& kind, const std::string& name, const Variables& variables,
                       const std::string& expression)
    {
        std::string content;
        for (const auto& [variable, node] : variables)
            content += "<pVariable Name=\"" + variable + "\">" + node + "</pVariable>";
        node(kind, name, content + tag("Formula", expression));
    }
    /// Any feature, and any node that is none.
    void feature(const std::string& name, const std::string& kind, const std::string& content)
    {
        list(name);
        node(kind, name, content);
    }
    void node(const std::string& kind, const std::string& name, const std::string& content)
    {
        nodes_ += "  <" + kind + " Name=\"" + name + "\">" + content + "</" + kind + ">\n";
    }
    void intReg(const std::string& name, std::uint32_t address, const std::string& access, const std::string& more = {})
    {
        node("IntReg", name + "Reg",
             place(address, 4, access, more) + tag("Sign", "Unsigned") + tag("Endianess", "BigEndian"));
    }
    /// A register in the chunk of a frame.
    void chunk(const std::string& name, std::uint32_t id, const std::string& kind, const std::string& more)
    {
        const std::string port = name + "Port";
        const std::string where = tag("Address", "0x0") + tag("Length", "8") + tag("AccessMode", "RO") +
                                  tag("pPort", port) + tag("Cachable", "NoCache");
        feature(name, kind, tag("pIsAvailable", "ChunkModeActiveReg") + more + tag("pValue", name + "Reg"));
        node(kind == "Float" ? "FloatReg" : "IntReg", name + "Reg",
             where + (kind == "Float" ? std::string() : tag("Sign", "Unsigned")) + tag("Endianess", "BigEndian"));
        node("Port", port, tag("ChunkID", hex(id).substr(2)));
    }

    std::string finish()
    {
        endCategory();
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<RegisterDescription ModelName=\"gevsim\" VendorName=\"SimulatedOptics\" ToolTip=\"Simulated camera\" "
               "StandardNameSpace=\"GEV\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" "
               "SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" MinorVersion=\"1\" SubMinorVersion=\"0\" "
               "ProductGuid=\"6E0B2C52-7E0B-4F9B-9C5C-1D3A0D6F1A01\" "
               "VersionGuid=\"6E0B2C52-7E0B-4F9B-9C5C-1D3A0D6F1A03\" "
               "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\" "
               "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
               "xsi:schemaLocation=\"http://www.genicam.org/GenApi/Version_1_1 "
               "http://www.genicam.org/GenApi/GenApiSchema_Version_1_1.xsd\">\n"
               "  <Category Name=\"Root\">\n" +
               categories_ + "  </Category>\n" + nodes_ + "  <Port Name=\"Device\"/>\n</RegisterDescription>\n";
    }

private:
    static std::string place(std::uint32_t address, std::uint32_t size, const std::string& access,
                             const std::string& more = {})
    {
        return tag("Address", hex(address)) + more + tag("Length", std::to_string(size)) + tag("AccessMode", access) +
               tag("pPort", "Device") + tag("Cachable", "NoCache");
    }
    static std::string onOff(const std::string& name)
    {
        return tag("pValue", name + "Reg") + tag("OnValue", "1") + tag("OffValue", "0");
    }
    void masked(const std::string& name, std::uint32_t address, unsigned first, unsigned last,
                const std::string& access)
    {
        node("MaskedIntReg", name + "Reg",
             place(address, 4, access) +
                 (first == last ? tag("Bit", std::to_string(first))
                                : tag("LSB", std::to_string(last)) + tag("MSB", std::to_string(first))) +
                 tag("Sign", "Unsigned") + tag("Endianess", "BigEndian"));
    }
    void choice(const std::string& name, const Entries& entries, const std::string& more)
    {
        std::string content = more + "\n";
        for (const Entry& entry : entries)
            content += "    <EnumEntry Name=\"" + std::string(entry.name) + "\">" + tag("Value", hex(entry.value)) +
                       "</EnumEntry>\n";
        feature(name, "Enumeration", content + "    " + tag("pValue", name + "Reg") + "\n  ");
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
    const std::string locked = tag("pIsLocked", "ParametersLocked");
    xml.category("DeviceControl");
    xml.text("DeviceVendorName", reg::manufacturerName, 32, "RO");
    xml.text("DeviceModelName", reg::modelName, 32, "RO");
    xml.text("DeviceManufacturerInfo", reg::manufacturerInfo, 48, "RO");
    xml.text("DeviceVersion", reg::deviceVersion, 32, "RO");
    xml.text("DeviceSerialNumber", reg::serialNumber, 16, "RO");
    xml.text("DeviceUserID", reg::userDefinedName, 16, "RW");
    xml.real("DeviceTemperature", feature::temperature, "RO", tag("Unit", "C"));
    xml.command("DeviceReset", feature::deviceReset, 1);

    xml.category("ImageFormatControl");
    xml.integer("SensorWidth", feature::sensorWidth, "RO", {});
    xml.integer("SensorHeight", feature::sensorHeight, "RO", {});
    xml.feature("WidthMax", "Integer", tag("pValue", "SensorWidthReg"));
    xml.feature("HeightMax", "Integer", tag("pValue", "SensorHeightReg"));
    // What can be had of size and place depends on the other one.
    const auto bounded = [&](const std::string& name, std::uint32_t address, const std::string& other,
                             const std::string& sensor, std::uint32_t least, std::uint32_t step) {
        xml.integer(name, address, "RW",
                    (least > 0 ? locked : std::string()) + tag("Min", std::to_string(least)) +
                        tag("pMax", name + "Limit") + tag("Inc", std::to_string(step)));
        xml.hiddenFormula("IntSwissKnife", name + "Limit", {{"ALL", sensor + "Reg"}, {"TAKEN", other + "Reg"}},
                          "ALL - TAKEN");
    };
    bounded("Width", feature::width, "OffsetX", "SensorWidth", limit::leastSize, limit::widthStep);
    bounded("Height", feature::height, "OffsetY", "SensorHeight", limit::leastSize, limit::heightStep);
    bounded("OffsetX", feature::offsetX, "Width", "SensorWidth", 0, limit::widthStep);
    bounded("OffsetY", feature::offsetY, "Height", "SensorHeight", 0, limit::heightStep);
    xml.boolean("ReverseX", feature::reverseX);
    Description::Entries formats;
    for (const pixel::Name& format : pixel::names)
        formats.push_back({format.text, format.value});
    xml.enumeration("PixelFormat", feature::pixelFormat, formats, locked);
    xml.formula("PixelSize", {{"F", "PixelFormatReg"}}, "(F &gt;&gt; 16) &amp; 0xFF");

    xml.category("AcquisitionControl");
    xml.enumeration("AcquisitionMode", feature::acquisitionMode,
                    {{"Continuous", 0}, {"SingleFrame", 1}, {"MultiFrame", 2}});
    xml.command("AcquisitionStart", feature::acquisitionStart, 1);
    xml.command("AcquisitionStop", feature::acquisitionStop, 1);
    xml.integer("AcquisitionStatus", feature::acquisitionStatus, "RO", {});
    xml.integer("AcquisitionFrameCount", feature::acquisitionFrameCount, "RW",
                tag("pIsAvailable", "FrameCountAvailable") + limits(1, 0xFFFF, 1));
    xml.hiddenFormula("IntSwissKnife", "FrameCountAvailable", {{"M", "AcquisitionModeReg"}}, "M = 2");
    xml.boolean("AcquisitionFrameRateEnable", feature::frameRateEnable);
    xml.real("AcquisitionFrameRate", feature::frameRate, "RW",
             tag("pIsAvailable", "AcquisitionFrameRateEnableReg") + tag("Min", "0.1") + tag("Max", "1000.0") +
                 tag("Unit", "Hz"));
    xml.feature("FramePeriod", "Converter",
                tag("Unit", "us") + tag("FormulaTo", "1000000 / FROM") + tag("FormulaFrom", "1000000 / TO") +
                    tag("pValue", "AcquisitionFrameRateReg") + tag("Slope", "Decreasing"));
    xml.real("ExposureTime", feature::exposureTime, "RW",
             tag("Min", "10.0") + tag("pMax", "ExposureTimeLimit") + tag("Unit", "us"));
    xml.hiddenFormula("SwissKnife", "ExposureTimeLimit",
                      {{"E", "AcquisitionFrameRateEnableReg"}, {"R", "AcquisitionFrameRateReg"}},
                      "((E = 1) &amp;&amp; (R &gt; 1)) ? (1000000.0 / R) : 1000000.0");
    xml.enumeration("TriggerSelector", feature::triggerSelector, {{"FrameStart", 0}},
                    tag("pSelected", "TriggerMode") + tag("pSelected", "TriggerSource") +
                        tag("pSelected", "TriggerSoftware"));
    xml.enumeration("TriggerMode", feature::triggerMode, {{"Off", 0}, {"On", 1}});
    xml.enumeration("TriggerSource", feature::triggerSource, {{"Software", 0}, {"Line1", 1}});
    xml.command("TriggerSoftware", feature::triggerSoftware, 1, tag("pIsAvailable", "SoftwareTriggered"));
    xml.hiddenFormula("IntSwissKnife", "SoftwareTriggered", {{"M", "TriggerModeReg"}, {"S", "TriggerSourceReg"}},
                      "(M = 1) &amp;&amp; (S = 0)");

    xml.category("AnalogControl");
    xml.real("Gain", feature::gain, "RW", tag("Min", "0.0") + tag("Max", "24.0") + tag("Unit", "dB"));

    xml.category("ChunkDataControl");
    xml.boolean("ChunkModeActive", feature::chunkMode, locked);
    xml.enumeration("ChunkSelector", feature::chunkSelector,
                    {{"Image", 0}, {"FrameID", 1}, {"Timestamp", 2}, {"ExposureTime", 3}},
                    tag("pSelected", "ChunkEnable"));
    // The image's own is always on.
    xml.feature("ChunkEnable", "Boolean",
                tag("pIsLocked", "ChunkEnableLocked") + tag("pValue", "ChunkEnableReg") + tag("OnValue", "1") +
                    tag("OffValue", "0"));
    xml.hiddenFormula("IntSwissKnife", "ChunkEnableLocked", {{"L", "ParametersLocked"}, {"S", "ChunkSelectorReg"}},
                      "(L = 1) || (S = 0)");
    xml.intReg("ChunkEnable", feature::chunkEnable, "RW", "<pIndex Offset=\"4\">ChunkSelectorReg</pIndex>");
    const std::pair<const char*, unsigned> chunks[] = {
        {"ChunkFrameIDOn", 1}, {"ChunkTimestampOn", 2}, {"ChunkExposureTimeOn", 3}};
    for (const auto& [name, index] : chunks)
        xml.intReg(name, feature::chunkEnable + 4 * index, "RO");
    xml.chunk("ChunkFrameID", chunk::frameIdId, "Integer", {});
    xml.chunk("ChunkTimestamp", chunk::timestampId, "Integer", tag("Unit", "ns"));
    xml.chunk("ChunkExposureTime", chunk::exposureId, "Float", tag("Unit", "us"));

    xml.category("TestControl");
    xml.integer("TestValue", feature::testValue, "RW", limits(0, 0xFFFFFFFF, 1));
    xml.text("TestText", feature::testText, 32, "RW");

    xml.category("TransportLayerControl");
    xml.formula("PayloadSize",
                {{"W", "WidthReg"},
                 {"H", "HeightReg"},
                 {"F", "PixelFormatReg"},
                 {"C", "ChunkModeActiveReg"},
                 {"A", "ChunkFrameIDOnReg"},
                 {"B", "ChunkTimestampOnReg"},
                 {"D", "ChunkExposureTimeOnReg"}},
                "W * H * ((F &gt;&gt; 16) &amp; 0xFF) / 8 + C * (8 + 16 * (A + B + D))");
    xml.feature("TLParamsLocked", "Integer", tag("Visibility", "Invisible") + tag("Value", "0") + limits(0, 1, 1));
    xml.intReg("Acquiring", feature::parametersLocked, "RO");
    xml.hiddenFormula("IntSwissKnife", "ParametersLocked", {{"T", "TLParamsLocked"}, {"A", "AcquiringReg"}},
                      "(T = 1) || (A = 1)");
    xml.integer("GevVersion", reg::version, "RO", {});
    xml.feature("GevMACAddress", "Integer", tag("pValue", "GevMACAddressReg"));
    xml.node("IntReg", "GevMACAddressReg",
             tag("Address", hex(reg::macHigh)) + tag("Length", "8") + tag("AccessMode", "RO") + tag("pPort", "Device") +
                 tag("Cachable", "NoCache") + tag("Sign", "Unsigned") + tag("Endianess", "BigEndian"));
    xml.integer("GevCurrentIPAddress", reg::currentIp, "RO", {});
    xml.integer("GevCurrentSubnetMask", reg::currentSubnetMask, "RO", {});
    xml.integer("GevCurrentDefaultGateway", reg::currentGateway, "RO", {});
    xml.flag("GevCurrentIPConfigurationDHCP", reg::currentIpConfiguration, 30);
    xml.flag("GevCurrentIPConfigurationPersistentIP", reg::currentIpConfiguration, 31);
    xml.integer("GevPersistentIPAddress", reg::persistentIp, "RW", {});
    xml.integer("GevPersistentSubnetMask", reg::persistentSubnetMask, "RW", {});
    xml.integer("GevPersistentDefaultGateway", reg::persistentGateway, "RW", {});
    xml.enumeration("GevCCP", reg::ccp, {{"OpenAccess", 0}, {"ExclusiveAccess", 1}, {"ControlAccess", 2}}, {}, "RO");
    xml.integer("GevHeartbeatTimeout", reg::heartbeatTimeout, "RW", {});
    xml.flagChoice("GevGVSPExtendedIDMode", reg::gvspConfiguration, 1, {{"Off", 0}, {"On", 1}});
    xml.integer("GevStreamChannelCount", reg::numberOfStreamChannels, "RO", {});
    xml.feature("GevStreamChannelSelector", "Integer",
                tag("Value", "0") + limits(0, 0, 1) + tag("pSelected", "GevSCPHostPort") +
                    tag("pSelected", "GevSCPSPacketSize") + tag("pSelected", "GevSCDA"));
    xml.bits("GevSCPHostPort", reg::streamPort, 16, 31, "RW", limits(0, 0xFFFF, 1));
    xml.flag("GevSCPSFireTestPacket", reg::streamPacketSize, 0);
    xml.flag("GevSCPSDoNotFragment", reg::streamPacketSize, 1);
    xml.bits("GevSCPSPacketSize", reg::streamPacketSize, 16, 31, "RW",
             locked + limits(streamPacketValue::least, streamPacketValue::most, streamPacketValue::step));
    xml.integer("GevSCPD", reg::streamPacketDelay, "RW", limits(0, 0xFFFFFFFF, 1));
    xml.integer("GevSCDA", reg::streamDestination, "RW", {});
    xml.integer("GevSCSP", reg::streamSourcePort, "RO", {});
    xml.flag("GevSCCFGUnconditionalStreaming", reg::streamConfiguration, 30);
    xml.flag("GevSCCFGExtendedChunkData", reg::streamConfiguration, 31);
    xml.integer("GevTimestampTickFrequency", reg::tickFrequencyLow, "RO", {});
    xml.command("GevTimestampControlLatch", reg::timestampControl, 2);
    xml.command("GevTimestampControlReset", reg::timestampControl, 1);
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

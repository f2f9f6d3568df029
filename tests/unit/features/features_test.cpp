// Features over a camera that is memory alone: kinds, bounds, access, errors, and what reaches the port.
#include "tests/unit/features/memory_port.h"

#include <gmock/gmock.h>

#include <cmath>

namespace {

using namespace zuGevFeatures;
using namespace std::chrono_literals;
using namespace zuTest;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Reason = FeatureError::Reason;

struct FeaturesTest : testing::Test {
    std::shared_ptr<MemoryPort> port = std::make_shared<MemoryPort>();
    std::unique_ptr<Features> features;

    void open(const std::string& list, const std::string& nodes)
    {
        features = openFeatures(port, describe(list, nodes));
        port->log.clear();
    }
};

/// What an action throws.
FeatureError errorOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const FeatureError& error) {
        return error;
    }
    ADD_FAILURE() << "no FeatureError";
    return {Reason::unknown, "", ""};
}

TEST_F(FeaturesTest, everyKindIsReadAndSet)
{
    open("Width Gain Mirror Name Format Start Scaled Bits",
         integer("Width", "<pValue>WidthReg</pValue><Min>16</Min><Max>640</Max><Inc>4</Inc><Unit>px</Unit>") +
             reg("WidthReg", 0x10) + "<Float Name=\"Gain\"><pValue>GainReg</pValue><Min>0</Min><Max>24</Max></Float>" +
             reg("GainReg", 0x14, "RW", "FloatReg", "") +
             "<Boolean Name=\"Mirror\"><pValue>MirrorReg</pValue><OnValue>5</OnValue><OffValue>2</OffValue></Boolean>" +
             reg("MirrorReg", 0x18) + reg("Name", 0x40, "RW", "StringReg", "", 8) +
             "<Enumeration Name=\"Format\"><EnumEntry Name=\"Mono8\"><Value>0x1080001</Value></EnumEntry>"
             "<EnumEntry Name=\"Mono16\"><Value>0x1100007</Value></EnumEntry><pValue>FormatReg</pValue></Enumeration>" +
             reg("FormatReg", 0x1C) +
             "<Command Name=\"Start\"><pValue>StartReg</pValue><CommandValue>7</CommandValue></Command>" +
             reg("StartReg", 0x20) +
             "<Converter Name=\"Scaled\"><FormulaTo>FROM / 0.5</FormulaTo><FormulaFrom>TO * 0.5</FormulaFrom>"
             "<pValue>WidthReg</pValue></Converter>" +
             reg("Bits", 0x24, "RW", "MaskedIntReg", "<LSB>7</LSB><MSB>4</MSB><Sign>Unsigned</Sign>"));
    port->setWord(0x10, 320);
    port->setFloat(0x14, 1.5F);
    port->setWord(0x18, 5);
    port->setWord(0x1C, 0x1100007);
    port->setBytes(0x40, "left");

    EXPECT_EQ(features->get("Width"), Value(std::int64_t{320}));
    EXPECT_EQ(features->get("Gain"), Value(1.5));
    EXPECT_EQ(features->get("Mirror"), Value(true));
    EXPECT_EQ(features->get("Name"), Value("left"));
    EXPECT_EQ(features->get("Format"), Value("Mono16"));
    EXPECT_EQ(features->get("Scaled"), Value(160.0));
    EXPECT_EQ(features->integer("Width"), 320);
    EXPECT_EQ(features->real("Gain"), 1.5);
    EXPECT_TRUE(features->boolean("Mirror"));
    EXPECT_EQ(features->getText("Gain"), "1.5");
    for (const auto& [value, text] : std::vector<std::pair<float, const char*>>{
             {1000000.0F, "1000000"}, {0.1F, "0.1"}, {1e-9F, "1e-09"}, {1e20F, "1e+20"}, {0.0F, "0"}}) {
        port->setFloat(0x14, value);
        EXPECT_EQ(features->getText("Gain"), text);
    }
    port->setFloat(0x14, 1.5F);
    EXPECT_EQ(errorOf([&] { features->integer("Gain"); }).reason(), Reason::wrongKind);

    features->set("Width", 640);
    features->set("Gain", 24);
    features->set("Mirror", false);
    features->set("Name", "rechts12");
    features->set("Format", "Mono8");
    features->set("Bits", 9);
    EXPECT_EQ(port->word(0x10), 640u);
    EXPECT_EQ(features->get("Gain"), Value(24.0));
    EXPECT_EQ(port->word(0x18), 2u);
    EXPECT_EQ(features->get("Name"), Value("rechts12"));
    EXPECT_EQ(port->word(0x1C), 0x1080001u);
    EXPECT_EQ(features->get("Bits"), Value(std::int64_t{9}));
    features->set("Format", 0x1100007);
    EXPECT_EQ(port->word(0x1C), 0x1100007u);
    features->set("Scaled", 100.0);
    EXPECT_EQ(port->word(0x10), 200u);
    features->execute("Start");
    EXPECT_EQ(port->word(0x20), 7u);

    features->setText("Width", "0x20");
    features->setText("Gain", "2.5e0");
    features->setText("Mirror", "on");
    features->setText("Format", "Mono8");
    EXPECT_EQ(features->getText("Width"), "32");
    EXPECT_EQ(features->get("Gain"), Value(2.5));
    EXPECT_TRUE(features->boolean("Mirror"));
    EXPECT_EQ(features->getText("Format"), "Mono8");
}

TEST_F(FeaturesTest, listTellsWhatTheDescriptionSays)
{
    open("Format DeviceControl",
         "<Category Name=\"Format\"><pFeature>Width</pFeature><pFeature>Missing</pFeature></Category>"
         "<Category Name=\"DeviceControl\"><pFeature>Inner</pFeature><pFeature>Format</pFeature></Category>"
         "<Category Name=\"Inner\"><pFeature>Gain</pFeature><pFeature>Which</pFeature></Category>" +
             integer("Width",
                     "<ToolTip>How wide</ToolTip><DisplayName>Wide</DisplayName><Visibility>Expert</Visibility>"
                     "<Value>1</Value><Unit>px</Unit>") +
             "<Float Name=\"Gain\"><Description>Louder</Description><ToolTip>no</ToolTip><Visibility>Guru</Visibility>"
             "<Value>1</Value></Float>" +
             integer("Which", "<Value>1</Value><pSelected>Gain</pSelected>") + integer("Hidden", "<Value>4</Value>"));
    const std::vector<Feature> list = features->list();
    std::vector<std::string> names;
    for (const Feature& feature : list)
        names.push_back(feature.category + ":" + feature.name);
    EXPECT_THAT(names, ElementsAre(":Format", "Format:Width", ":DeviceControl", "DeviceControl:Inner",
                                   "DeviceControl/Inner:Gain", "DeviceControl/Inner:Which"));
    ASSERT_EQ(list.size(), 6u);
    EXPECT_EQ(list[1].displayName, "Wide");
    EXPECT_EQ(list[1].description, "How wide");
    EXPECT_EQ(list[1].unit, "px");
    EXPECT_EQ(list[1].visibility, Visibility::expert);
    EXPECT_EQ(list[4].kind, Kind::real);
    EXPECT_EQ(list[4].description, "Louder");
    EXPECT_EQ(list[4].visibility, Visibility::guru);
    EXPECT_THAT(list[4].selectors, ElementsAre("Which"));
    EXPECT_EQ(list[0].kind, Kind::category);
    EXPECT_THAT(port->log, IsEmpty()); // none of this asks the camera
    EXPECT_EQ(features->describe("Hidden").category, "");
    EXPECT_EQ(features->get("Hidden"), Value(std::int64_t{4}));
}

TEST_F(FeaturesTest, refusalsNameFeatureValueAndWhatIsAllowed)
{
    open("Width Gain Mirror Format Name Run Group",
         integer("Width", "<pValue>R</pValue><Min>16</Min><Max>640</Max><Inc>4</Inc>") + reg("R", 0x10) +
             "<Float Name=\"Gain\"><Value>1</Value><Min>0</Min><Max>24</Max></Float>"
             "<Boolean Name=\"Mirror\"><Value>1</Value></Boolean>"
             "<Enumeration Name=\"Format\"><EnumEntry Name=\"A\"><Value>1</Value></EnumEntry>"
             "<EnumEntry Name=\"B\"><Value>2</Value></EnumEntry><EnumEntry Name=\"C\"><Value>3</Value>"
             "<pIsAvailable>No</pIsAvailable></EnumEntry><Value>1</Value></Enumeration>" +
             integer("No", "<Value>0</Value>") + reg("Name", 0x40, "RW", "StringReg", "", 8) +
             "<Command Name=\"Run\"><pValue>R</pValue><CommandValue>1</CommandValue></Command>"
             "<Category Name=\"Group\"/>");
    const auto refused = [&](const char* name, const Value& value, const char* text, const char* allowed) {
        const FeatureError error = errorOf([&] { features->set(name, value); });
        EXPECT_EQ(error.reason(), Reason::badValue) << error.what();
        EXPECT_STREQ(error.what(), text);
        EXPECT_EQ(error.allowed(), allowed);
        EXPECT_EQ(error.feature(), name);
    };
    refused("Width", 99999, "Width can't be set to 99999: allowed is 16 to 640 in steps of 4",
            "16 to 640 in steps of 4");
    refused("Width", 12, "Width can't be set to 12: allowed is 16 to 640 in steps of 4", "16 to 640 in steps of 4");
    refused("Width", 17, "Width can't be set to 17: allowed is 16 to 640 in steps of 4", "16 to 640 in steps of 4");
    refused("Gain", 24.5, "Gain can't be set to 24.5: allowed is 0 to 24", "0 to 24");
    refused("Format", "D", "Format can't be set to D: allowed are A, B", "A, B");
    refused("Format", "C", "Format can't be set to C: allowed are A, B", "A, B");
    refused("Format", 3, "Format can't be set to 3: allowed are A, B", "A, B");
    refused("Name", "ninebytes", "Name can't be set to 'ninebytes': allowed is a text of at most 8 bytes",
            "a text of at most 8 bytes");
    EXPECT_EQ(port->word(0x10), 0u);

    EXPECT_EQ(features->state("Format").allowed, "A, B");
    EXPECT_EQ(errorOf([&] { features->set("Gain", std::nan("")); }).reason(), Reason::badValue);
    EXPECT_STREQ(errorOf([&] { features->setText("Width", "wide"); }).what(),
                 "Width can't be set to 'wide': allowed is 16 to 640 in steps of 4");
    EXPECT_STREQ(errorOf([&] { features->setText("Mirror", "maybe"); }).what(),
                 "Mirror can't be set to 'maybe': allowed is true or false");
    EXPECT_STREQ(errorOf([&] { features->set("Width", 1.5); }).what(),
                 "Width can't be set to 1.5: it takes an integer");
    EXPECT_STREQ(errorOf([&] { features->set("Mirror", 1); }).what(),
                 "Mirror can't be set to 1: it takes true or false");
    EXPECT_STREQ(errorOf([&] { features->set("Run", 1); }).what(), "Run is a command: it can't be set, but run");
    EXPECT_STREQ(errorOf([&] { features->get("Run"); }).what(), "Run is a command: it has no value, but can be run");
    EXPECT_STREQ(errorOf([&] { features->execute("Width"); }).what(), "Width is no command");
    EXPECT_STREQ(errorOf([&] { features->get("Group"); }).what(), "Group is a category: it has no value");
    const FeatureError unknown = errorOf([&] { features->get("Widht"); });
    EXPECT_EQ(unknown.reason(), Reason::unknown);
    EXPECT_STREQ(unknown.what(), "The camera has no feature Widht; there is Width");
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { features->state("Nix"); }, [&] { features->describe("Nix"); }, [&] { features->set("Nix", 1); },
             [&] { features->setText("Nix", "1"); }, [&] { features->execute("Nix"); },
             [&] { features->waitForEnd("Nix", 0ms); }, [&] { features->setAndTell("Nix", 1); }})
        EXPECT_EQ(errorOf(call).reason(), Reason::unknown);
}

TEST_F(FeaturesTest, accessAndBoundsFollowOtherFeatures)
{
    open("Width Left Burst Gain Serial Secret",
         integer("Width", "<pValue>WR</pValue><Min>16</Min><pMax>WMax</pMax><Inc>4</Inc>") + reg("WR", 0x10) +
             integer("Left", "<pValue>LR</pValue><Min>0</Min><pMax>LMax</pMax>") + reg("LR", 0x14) +
             // Each one's largest value comes of the other's value: legal, though it leads in a circle.
             "<IntSwissKnife Name=\"WMax\"><pVariable Name=\"L\">Left</pVariable><Formula>640 - L</Formula>"
             "</IntSwissKnife><IntSwissKnife Name=\"LMax\"><pVariable Name=\"W\">Width</pVariable>"
             "<Formula>640 - W</Formula></IntSwissKnife>" +
             integer("Burst", "<pIsAvailable>Mode</pIsAvailable><Value>3</Value>") + reg("Mode", 0x18) +
             "<Float Name=\"Gain\"><pIsLocked>Auto</pIsLocked><Value>1</Value></Float>" + reg("Auto", 0x1C) +
             reg("Serial", 0x20, "RO") + reg("Secret", 0x24, "WO") +
             integer("Ghost", "<pIsImplemented>Never</pIsImplemented><Value>1</Value>") +
             integer("Never", "<Value>0</Value>"));
    port->setWord(0x10, 320);
    EXPECT_EQ(*features->state("Left").maximum, Value(std::int64_t{320}));
    EXPECT_EQ(features->state("Left").allowed, "0 to 320");
    features->set("Left", 300);
    EXPECT_EQ(*features->state("Width").maximum, Value(std::int64_t{340}));
    EXPECT_EQ(errorOf([&] { features->set("Width", 640); }).allowed(), "16 to 340 in steps of 4");

    EXPECT_EQ(features->state("Burst").access, Access::notAvailable);
    EXPECT_EQ(errorOf([&] { features->get("Burst"); }).reason(), Reason::notAvailable);
    EXPECT_EQ(errorOf([&] { features->set("Burst", 1); }).reason(), Reason::notAvailable);
    port->setWord(0x18, 1);
    EXPECT_EQ(features->state("Burst").access, Access::readWrite);
    features->set("Burst", 4);
    EXPECT_EQ(features->get("Burst"), Value(std::int64_t{4}));

    EXPECT_EQ(features->state("Gain").access, Access::readWrite);
    port->setWord(0x1C, 1);
    EXPECT_EQ(features->state("Gain").access, Access::readOnly);
    EXPECT_STREQ(errorOf([&] { features->set("Gain", 2.0); }).what(),
                 "Gain can't be set to 2: it is locked by the present settings");
    EXPECT_EQ(features->get("Gain"), Value(1.0));

    EXPECT_EQ(features->state("Serial").access, Access::readOnly);
    EXPECT_STREQ(errorOf([&] { features->set("Serial", 2); }).what(), "Serial can't be set to 2: it can only be read");
    EXPECT_EQ(features->state("Secret").access, Access::writeOnly);
    EXPECT_STREQ(errorOf([&] { features->get("Secret"); }).what(), "Secret can't be read: it can only be set");
    EXPECT_EQ(features->state("Ghost").access, Access::notImplemented);
    EXPECT_STREQ(errorOf([&] { features->get("Ghost"); }).what(), "Ghost can't be read: this camera doesn't have it");
}

TEST_F(FeaturesTest, writtenAsTheDescriptionWritesNumbers)
{
    open("Hex Ip Mac", integer("Hex", "<pValue>R</pValue><Representation>HexNumber</Representation>") + reg("R", 0x10) +
                           integer("Ip", "<pValue>R</pValue><Representation>IPV4Address</Representation>") +
                           integer("Mac", "<Value>0x02010C0A0804</Value><Representation>MACAddress</Representation>"));
    port->setWord(0x10, 0xC0A80714);
    EXPECT_EQ(features->getText("Hex"), "0xC0A80714");
    EXPECT_EQ(features->getText("Ip"), "192.168.7.20");
    EXPECT_EQ(features->getText("Mac"), "02:01:0C:0A:08:04");
    features->setText("Ip", "10.0.0.9");
    EXPECT_EQ(port->word(0x10), 0x0A000009u);
    features->setText("Hex", "0xFFFFFFFF");
    EXPECT_EQ(port->word(0x10), 0xFFFFFFFFu);
    EXPECT_EQ(errorOf([&] { features->setText("Ip", "10.0.0"); }).reason(), Reason::badValue);
    EXPECT_EQ(errorOf([&] { features->setText("Ip", "10.0.0.256"); }).reason(), Reason::badValue);
}

TEST_F(FeaturesTest, textsThatFillTheirRegister)
{
    open("Text Outer Fixed", reg("Text", 0x40, "RW", "StringReg", "", 8) +
                                 "<String Name=\"Outer\"><pValue>Text</pValue></String>"
                                 "<String Name=\"Fixed\"><Value>always</Value></String>");
    port->setBytes(0x40, "12345678and more");
    EXPECT_EQ(features->getText("Text"), "12345678");
    EXPECT_EQ(features->getText("Outer"), "12345678");
    features->set("Outer", "abc");
    EXPECT_EQ(features->getText("Text"), "abc");
    EXPECT_EQ(features->getText("Fixed"), "always");
}

TEST_F(FeaturesTest, fourBytesGoAsRegistersAndNothingIsReadTwice)
{
    open("Width Wide Text", integer("Width", "<pValue>R</pValue>") + reg("R", 0x10) +
                                reg("Wide", 0x18, "RW", "IntReg", "<Sign>Unsigned</Sign>", 8) +
                                reg("Text", 0x40, "RW", "StringReg", "", 8));
    port->setWord(0x18, 1);
    features->get("Width");
    EXPECT_THAT(port->log, ElementsAre("read register 16"));
    port->log.clear();
    EXPECT_EQ(features->get("Wide"), Value(std::int64_t{1} << 32));
    EXPECT_THAT(port->log, ElementsAre("read memory 24 8"));
    port->log.clear();
    features->set("Width", 5);
    EXPECT_THAT(port->log, ElementsAre("write register 16"));
    port->log.clear();
    features->set("Text", "abc");
    EXPECT_THAT(port->log, ElementsAre("write memory 64 8"));
}

TEST_F(FeaturesTest, addressesBeyond32BitsAreRefused)
{
    open("Far Edge Offset", reg("Far", 0, "RW", "IntReg", "<Address>0x100000000</Address>") +
                                reg("Edge", 0xFFFFFFFE, "RW", "IntReg", "<Sign>Unsigned</Sign>") +
                                reg("Offset", 0xFFFFFFF0, "RW", "IntReg", "<pAddress>Step</pAddress>") +
                                integer("Step", "<Value>0x20</Value>"));
    for (const char* const name : {"Far", "Edge", "Offset"}) {
        const FeatureError error = errorOf([&] { features->get(name); });
        EXPECT_EQ(error.reason(), Reason::description);
        EXPECT_EQ(error.what(),
                  name + std::string(" can't be read: the description leads beyond the camera's 32-bit addresses"));
        EXPECT_THAT(errorOf([&] { features->set(name, 1); }).what(), HasSubstr("beyond the camera's 32-bit addresses"));
    }
    EXPECT_THAT(port->log, IsEmpty());
}

struct Gone : std::runtime_error {
    using std::runtime_error::runtime_error;
};

TEST_F(FeaturesTest, whatThePortThrowsArrivesAndLeavesNothingBehind)
{
    open("Sum Text Format",
         "<IntSwissKnife Name=\"Sum\"><pVariable Name=\"A\">R1</pVariable><pVariable Name=\"B\">R2</pVariable>"
         "<pVariable Name=\"C\">R3</pVariable><Formula>A + B + C</Formula></IntSwissKnife>" +
             reg("R1", 0x10) + reg("R2", 0x14) + reg("R3", 0x18) + reg("Text", 0x40, "RW", "StringReg", "", 8) +
             "<Enumeration Name=\"Format\"><EnumEntry Name=\"A\"><Value>0</Value></EnumEntry><pValue>R1</pValue>"
             "</Enumeration>");
    port->setWord(0x10, 1);
    port->setWord(0x14, 2);
    port->setWord(0x18, 4);
    port->onAccess = [](std::uint32_t) { throw Gone("the daemon is gone"); };
    for (const char* const name : {"Sum", "Text", "Format"}) {
        port->log.clear();
        EXPECT_THROW(features->get(name), Gone);
        EXPECT_EQ(port->log.size(), 1u) << name; // after the first failure no further access of this call
        EXPECT_THROW(features->state(name), Gone);
    }
    EXPECT_THROW(features->set("Text", "x"), Gone);
    EXPECT_THROW(features->save(), Gone);
    port->onAccess = {};
    EXPECT_EQ(features->get("Sum"), Value(std::int64_t{7}));
    port->onAccess = [](std::uint32_t address) {
        if (address == 0x14)
            throw Refused("not now");
    };
    EXPECT_THROW(features->get("Sum"), Refused);
    const State state = features->state("Sum");
    EXPECT_EQ(state.problem, "not now");
    EXPECT_FALSE(state.value);
    port->onAccess = {};
    EXPECT_EQ(features->state("Sum").problem, "");
}

TEST_F(FeaturesTest, setTellsWhatBecameOfItAndWhatChanged)
{
    open("Width Payload Half Other Gain Which",
         integer("Width", "<pValue>WR</pValue><Min>0</Min><Max>1000</Max>") + reg("WR", 0x10) +
             "<IntSwissKnife Name=\"Payload\"><pVariable Name=\"W\">Width</pVariable><Formula>W * 2</Formula>"
             "</IntSwissKnife>" +
             integer("Half", "<Value>0</Value><Min>0</Min><pMax>Payload</pMax>") +
             integer("Other", "<pValue>OR</pValue>") + reg("OR", 0x14) +
             reg("Gain", 0x18, "RW", "IntReg", "<pIndex Offset=\"4\">Which</pIndex>") +
             integer("Which", "<pValue>Sel</pValue><Min>0</Min><Max>3</Max><pSelected>Gain</pSelected>") +
             reg("Sel", 0x30));
    port->setWord(0x1C, 9);
    port->onWrite = [](std::uint32_t address, std::uint32_t value) { return address == 0x10 ? value & ~15u : value; };
    Outcome outcome = features->setAndTell("Width", 100);
    EXPECT_EQ(*outcome.value, Value(std::int64_t{96}));
    EXPECT_EQ(outcome.text, "96");
    EXPECT_FALSE(outcome.asAsked);
    ASSERT_EQ(outcome.changes.size(), 2u);
    EXPECT_EQ(outcome.changes[0].feature, "Payload");
    EXPECT_EQ(outcome.changes[0].before.text, "0");
    EXPECT_EQ(outcome.changes[0].after.text, "192");
    EXPECT_EQ(outcome.changes[1].feature, "Half");
    EXPECT_EQ(*outcome.changes[1].after.maximum, Value(std::int64_t{192}));

    outcome = features->setTextAndTell("Which", "1");
    EXPECT_TRUE(outcome.asAsked);
    ASSERT_EQ(outcome.changes.size(), 1u);
    EXPECT_EQ(outcome.changes[0].feature, "Gain");
    EXPECT_EQ(outcome.changes[0].after.text, "9");
    EXPECT_THAT(features->setAndTell("Which", 1).changes, IsEmpty());
}

TEST_F(FeaturesTest, commandsAreWaitedFor)
{
    open("Run Blind", "<Command Name=\"Run\"><pValue>R</pValue><CommandValue>1</CommandValue></Command>" +
                          reg("R", 0x10) +
                          "<Command Name=\"Blind\"><pValue>W</pValue><CommandValue>1</CommandValue></Command>" +
                          reg("W", 0x14, "WO"));
    features->execute("Run");
    EXPECT_FALSE(features->waitForEnd("Run", 20ms));
    int reads = 0;
    port->onAccess = [&](std::uint32_t) {
        if (++reads == 5)
            port->setWord(0x10, 0);
    };
    EXPECT_TRUE(features->waitForEnd("Run", 60s));
    EXPECT_EQ(reads, 5);
    port->onAccess = {};
    features->execute("Blind");
    EXPECT_EQ(port->word(0x14), 1u);
    EXPECT_TRUE(features->waitForEnd("Blind", 0ms));
    EXPECT_EQ(errorOf([&] { features->waitForEnd("R", 0ms); }).reason(), Reason::wrongKind);
}

} // namespace

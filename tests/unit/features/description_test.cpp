// Descriptions that are damaged, malicious, or only look so.
#include "tests/unit/features/memory_port.h"

#include "features/Formula.h"

#include <arv.h>

#include <gmock/gmock.h>

#include <limits>

namespace {

using namespace zuGevFeatures;
using namespace zuTest;
using testing::HasSubstr;
using Reason = FeatureError::Reason;

/// What opening it throws; empty if it opens.
std::string refusal(const std::string& description)
{
    try {
        openFeatures(std::make_shared<MemoryPort>(), description);
        return {};
    } catch (const FeatureError& error) {
        EXPECT_EQ(error.reason(), Reason::description);
        return error.what();
    }
}

/// What getting the feature throws; empty if it gives a value.
std::string faultOf(const std::string& nodes, const std::string& name)
{
    const auto features = openFeatures(std::make_shared<MemoryPort>(), describe(name, nodes));
    try {
        features->get(name);
        return {};
    } catch (const FeatureError& error) {
        EXPECT_EQ(error.reason(), Reason::description) << error.what();
        EXPECT_EQ(features->state(name).problem, error.what());
        return error.what();
    }
}

TEST(DescriptionTest, valuesThatReferToThemselvesAreRefused)
{
    EXPECT_THAT(refusal(describe("A", integer("A", "<pValue>B</pValue>") + integer("B", "<pValue>A</pValue>"))),
                HasSubstr("refers to itself in a circle"));
    EXPECT_THAT(refusal(describe("A", integer("A", "<pValue>A</pValue>"))), HasSubstr("circle"));
    EXPECT_THAT(refusal(describe("", reg("R", 0, "RW", "IntReg", "<pAddress>R</pAddress>"))), HasSubstr("circle"));
    EXPECT_THAT(refusal(describe("", reg("R", 0, "RW", "IntReg", "<pIndex pOffset=\"I\">J</pIndex>") +
                                         integer("I", "<pValue>R</pValue>") + integer("J", "<Value>1</Value>"))),
                HasSubstr("circle"));
    EXPECT_THAT(refusal(describe("", "<IntSwissKnife Name=\"K\"><pVariable Name=\"X\">L</pVariable><Formula>X</Formula>"
                                     "</IntSwissKnife>" +
                                         integer("L", "<pValue>K</pValue>"))),
                HasSubstr("circle"));
    EXPECT_THAT(refusal(describe("", "<Group Comment=\"c\">" + integer("A", "<pValue>B</pValue>") + "</Group>" +
                                         integer("B", "<pValue>A</pValue>"))),
                HasSubstr("circle"));
}

TEST(DescriptionTest, otherCirclesAreLegal)
{
    const auto features = openFeatures(
        std::make_shared<MemoryPort>(),
        describe("A B M N P Q C",
                 integer("A", "<Value>1</Value><pSelected>B</pSelected><pInvalidator>B</pInvalidator>") +
                     integer("B", "<Value>2</Value><pSelected>A</pSelected><pInvalidator>A</pInvalidator>") +
                     integer("M", "<Value>3</Value><pMin>N</pMin><pMax>N</pMax>") +
                     integer("N", "<Value>3</Value><pMin>M</pMin><pMax>M</pMax>") +
                     integer("P", "<Value>1</Value><pIsAvailable>Q</pIsAvailable><pIsLocked>Q</pIsLocked>") +
                     integer("Q", "<Value>1</Value><pIsAvailable>P</pIsAvailable>") +
                     "<Category Name=\"C\"><pFeature>C</pFeature><pFeature>D</pFeature></Category>"
                     "<Category Name=\"D\"><pFeature>C</pFeature></Category>"));
    EXPECT_EQ(features->list().size(), 8u);
    for (const char* const name : {"A", "B", "M", "N", "P", "Q"}) {
        EXPECT_TRUE(features->state(name).value) << name;
        if (features->state(name).access == Access::readWrite) {
            EXPECT_NO_THROW(features->setAndTell(name, features->get(name))) << name;
        }
    }
    EXPECT_EQ(features->save().values, 5u); // P is locked
}

TEST(DescriptionTest, whatWouldTakeForEverIsRefused)
{
    std::string chain = integer("N0", "<Value>1</Value>");
    std::string fork = chain;
    std::string converters = integer("N0", "<Value>1</Value><Min>0</Min><Max>9</Max>");
    for (int i = 1; i <= 40; ++i) {
        const std::string name = "N" + std::to_string(i);
        const std::string below = "N" + std::to_string(i - 1);
        chain += integer(name, "<pValue>" + below + "</pValue>");
        fork += "<IntSwissKnife Name=\"" + name + "\"><pVariable Name=\"X\">" + below +
                "</pVariable><pVariable Name=\"Y\">" + below + "</pVariable><Formula>X+Y</Formula></IntSwissKnife>";
        converters += "<IntConverter Name=\"" + name +
                      "\"><FormulaTo>FROM</FormulaTo><FormulaFrom>TO</FormulaFrom><pValue>" + below +
                      "</pValue></IntConverter>";
    }
    EXPECT_EQ(refusal(describe("N40", chain)), "");
    EXPECT_THAT(refusal(describe("N40", fork)), HasSubstr("more steps than can be meant"));
    EXPECT_THAT(refusal(describe("N40", converters)), HasSubstr("more steps than can be meant"));
    for (int i = 41; i <= 5000; ++i)
        chain += integer("N" + std::to_string(i), "<pValue>N" + std::to_string(i - 1) + "</pValue>");
    EXPECT_THAT(refusal(describe("N40", chain)), HasSubstr("chains that are too long"));

    std::string nested;
    for (int i = 0; i < 200; ++i)
        nested += "<Group Comment=\"" + std::to_string(i) + "\">";
    for (int i = 0; i < 200; ++i)
        nested += "</Group>";
    EXPECT_THAT(refusal(describe("", nested)), HasSubstr("nested too deeply"));

    std::string loop;
    for (int i = 0; i < 100; ++i)
        loop += "<Category Name=\"C" + std::to_string(i) + "\"><pFeature>C" + std::to_string(i + 1) +
                "</pFeature></Category>";
    EXPECT_THAT(refusal(describe("C0", loop)), HasSubstr("categories are nested too deeply"));
}

TEST(DescriptionTest, faultsOfOneFeatureLeaveTheOthersUsable)
{
    EXPECT_THAT(faultOf(integer("A", "<pValue>Nowhere</pValue>"), "A"),
                HasSubstr("it refers to 'Nowhere', which the description doesn't have"));
    EXPECT_THAT(faultOf(integer("A", "<pValue>Root</pValue>"), "A"),
                HasSubstr("it refers to 'Root', which has no value"));
    EXPECT_THAT(faultOf(integer("A", "<pValue>Device</pValue>"), "A"), HasSubstr("which has no value"));
    EXPECT_THAT(faultOf(integer("A", "<pValue>B</pValue>") + reg("B", 0x40, "RW", "StringReg", "", 8), "A"),
                HasSubstr("it refers to 'B', which is a text"));
    EXPECT_THAT(faultOf(integer("A", "<pValue>B</pValue>") + integer("B", "<pValue>C</pValue>"), "A"),
                HasSubstr("it depends on 'B': it refers to 'C'"));
    for (const char* const length : {"0", "-5", "0x7fffffffffff", "65537", "x", ""})
        EXPECT_THAT(faultOf("<IntReg Name=\"A\"><Address>0</Address><Length>" + std::string(length) +
                                "</Length><pPort>Device</pPort></IntReg>",
                            "A"),
                    HasSubstr("can't be meant"))
            << length;
    EXPECT_THAT(
        faultOf("<StringReg Name=\"A\"><Address>0</Address><pLength>B</pLength><pPort>Device</pPort></StringReg>" +
                    integer("B", "<Value>4</Value>"),
                "A"),
        HasSubstr("its length depends on another feature"));
    EXPECT_THAT(
        faultOf("<IntSwissKnife Name=\"A\"><Expression Name=\"E\">F</Expression><Expression Name=\"F\">E</Expression>"
                "<Formula>E</Formula></IntSwissKnife>",
                "A"),
        HasSubstr("refers to itself"));
    EXPECT_THAT(faultOf("<IntSwissKnife Name=\"A\"><Formula>1 / (2</Formula></IntSwissKnife>", "A"),
                HasSubstr("a bracket in its formula isn't closed"));
    const auto features =
        openFeatures(std::make_shared<MemoryPort>(),
                     describe("A B", integer("A", "<pValue>Nowhere</pValue>") + integer("B", "<Value>7</Value>")));
    EXPECT_EQ(features->get("B"), Value(std::int64_t{7}));
    EXPECT_EQ(features->list().size(), 2u);
    EXPECT_EQ(features->save().problems.size(), 1u);
}

TEST(DescriptionTest, whatComesWithPicturesIsNotAvailable)
{
    const auto features = openFeatures(
        std::make_shared<MemoryPort>(),
        describe("Frame B", integer("Frame", "<pValue>FrameReg</pValue>") +
                                "<IntReg Name=\"FrameReg\"><Address>0</Address><Length>4</Length><pPort>Chunk</pPort>"
                                "</IntReg><Port Name=\"Chunk\"><ChunkID>1234</ChunkID></Port>" +
                                integer("B", "<Value>7</Value>")));
    EXPECT_EQ(features->state("Frame").access, Access::notAvailable);
    EXPECT_EQ(features->state("Frame").problem, "");
    try {
        features->get("Frame");
        FAIL();
    } catch (const FeatureError& error) {
        EXPECT_EQ(error.reason(), Reason::notAvailable);
        EXPECT_THAT(error.what(), HasSubstr("it comes with pictures or events"));
    }
    EXPECT_TRUE(features->save().problems.empty());
}

TEST(DescriptionTest, whatIsNoDescriptionIsRefusedAtEachByte)
{
    const std::string whole =
        describe("A", integer("A", "<pValue>R</pValue><Min>1</Min>") + reg("R", 0x10) +
                          "<Enumeration Name=\"E\"><EnumEntry Name=\"One\"><Value>1</Value></EnumEntry><Value>1</Value>"
                          "</Enumeration>");
    const std::size_t needed = whole.rfind('>') + 1;
    for (std::size_t size = 1; size < whole.size(); ++size)
        EXPECT_EQ(refusal(whole.substr(0, size)).empty(), size >= needed) << size;
    EXPECT_THAT(refusal("no XML at all"), HasSubstr("damaged"));
    EXPECT_NE(refusal("<html><body/></html>"), "");
    EXPECT_NE(refusal("<?xml version=\"1.0\"?><RegisterDescription/>"), "");
    EXPECT_THAT(refusal("<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY x \"y\"><!ENTITY z \"&x;&x;&x;\">]><a>&z;</a>"),
                HasSubstr("description"));
}

using Evaluated = std::variant<std::int64_t, std::string>;

/// The value that the interpreter gives to a formula of X and Y, or what it says against it.
Evaluated evaluated(const std::string& formula, std::int64_t x, std::int64_t y)
{
    ArvEvaluator* const evaluator = arv_evaluator_new(formula.c_str());
    arv_evaluator_set_int64_variable(evaluator, "X", x);
    arv_evaluator_set_int64_variable(evaluator, "Y", y);
    GError* error = nullptr;
    const std::int64_t value = arv_evaluator_evaluate_as_int64(evaluator, &error);
    g_object_unref(evaluator);
    if (error == nullptr)
        return value;
    const std::string message = error->message;
    g_clear_error(&error);
    return message.find("division by zero") != message.npos ? "division by zero" : message + ": " + formula;
}

TEST(FormulaTest, mendedOnesHaveTheSameValue)
{
    for (const char* const formula :
         {"X / Y", "X % Y", "X / Y / 3", "X / Y * Y", "X * 2 / Y % 7", "(X + 1) / (Y - 2) + 5", "X / -Y", "X / ~Y",
          "100 / Y ** 2", "X / (Y / 3)", "X / Y % (X / (Y + 1))", "(Y > 3) ? (X / Y) : (X % Y)", "X / 4 + Y", "X/0x10",
          "(((X>>4)&0xF)*2)/Y", "X + 5 % Y - 1", "7 / Y << 2", "1e2 / Y"}) {
        const std::string mended = mendedFormula(formula, {});
        for (const std::int64_t x : {0, 1, 7, -7, 1000, -12345})
            for (const std::int64_t y : {1, -1, 3, -3, 5, 16})
                EXPECT_EQ(evaluated(mended, x, y), evaluated(formula, x, y))
                    << formula << " " << mended << " " << x << " " << y;
    }
    EXPECT_EQ(mendedFormula("X/8", {}), "X / 8 ");
    EXPECT_EQ(mendedFormula(" X+Y.Max ", {}), "X + Y.Max ");
}

TEST(FormulaTest, theDivisionThatTrapsGivesANumber)
{
    constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
    evaluated(mendedFormula("X / Y", {}), least, -1);
    EXPECT_EQ(evaluated(mendedFormula("X % Y", {}), least, -1), Evaluated(0));
    EXPECT_EQ(evaluated(mendedFormula("X / Y", {}), least + 1, -1),
              Evaluated(std::numeric_limits<std::int64_t>::max()));
    const auto features = openFeatures(
        std::make_shared<MemoryPort>(),
        describe("I D", "<IntSwissKnife Name=\"I\"><Formula>(1&lt;&lt;63) / (0-1)</Formula></IntSwissKnife>"
                        "<SwissKnife Name=\"D\"><Formula>(1&lt;&lt;63) % (0-1)</Formula></SwissKnife>"));
    EXPECT_TRUE(features->state("I").value);
    EXPECT_EQ(features->get("D"), Value(0.0));
}

TEST(FormulaTest, expressionsMayUseOneAnother)
{
    EXPECT_EQ(evaluated(mendedFormula("E2 + 10", {{"E1", "X + 1"}, {"E2", "E1 * 2"}}), 4, 0), Evaluated(20));
    std::map<std::string, std::string> bomb{{"E0", "1"}};
    for (int i = 1; i < 40; ++i)
        bomb["E" + std::to_string(i)] = "E" + std::to_string(i - 1) + "+E" + std::to_string(i - 1);
    EXPECT_THROW(mendedFormula("E39", bomb), std::runtime_error);
    EXPECT_THROW(mendedFormula("E", {{"E", "E"}}), std::runtime_error);
    std::string deep = "X";
    for (int i = 0; i < 30; ++i)
        deep = "1 / (" + deep + ")";
    EXPECT_THROW(mendedFormula(deep, {}), std::runtime_error);
    for (const char* const bad : {"1 /", "1 / )", "1 % *", "1 / (", "1 / f("})
        EXPECT_THROW(mendedFormula(bad, {}), std::runtime_error) << bad;
}

} // namespace

// One pass of events; no tree is built.
#include "features/XmlCheck.h"

#include "features/FeatureTypes.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <cstring>

namespace zuGevFeatures {

namespace {

constexpr int deepestElement = 64;

struct Seen {
    std::vector<std::string> offsets;
    int depth = 0;
    bool tooDeep = false;
    bool documentType = false;
    bool otherRoot = false;
    std::string problem; ///< the parser's first
};

// Called by the parser, which is C: nothing is thrown but what allocating throws, and that ends the process there.
void startElement(void* context, const xmlChar* name, const xmlChar** attributes) noexcept
{
    auto& seen = *static_cast<Seen*>(context);
    if (seen.depth == 0)
        seen.otherRoot = std::strcmp(reinterpret_cast<const char*>(name), "RegisterDescription") != 0;
    seen.tooDeep = ++seen.depth > deepestElement || seen.tooDeep;
    for (; attributes != nullptr && attributes[0] != nullptr; attributes += 2) {
        if (attributes[1] != nullptr && std::strcmp(reinterpret_cast<const char*>(attributes[0]), "pOffset") == 0)
            seen.offsets.emplace_back(reinterpret_cast<const char*>(attributes[1]));
    }
}

void endElement(void* context, const xmlChar*) noexcept { --static_cast<Seen*>(context)->depth; }

void documentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) noexcept
{
    static_cast<Seen*>(context)->documentType = true;
}

xmlEntityPtr predefinedEntity(void*, const xmlChar* name) noexcept { return xmlGetPredefinedEntity(name); }

/// Also keeps the parser from printing.
void keepProblem(void* context, const char*, ...) noexcept
{
    auto& seen = *static_cast<Seen*>(context);
    const xmlError* const error = xmlGetLastError();
    if (error == nullptr || error->message == nullptr || !seen.problem.empty())
        return;
    seen.problem = error->message;
    seen.problem.erase(seen.problem.find_last_not_of("\r\n ") + 1);
    seen.problem += " (line " + std::to_string(error->line) + ")";
}

void ignoreWarning(void*, const char*, ...) noexcept {}

[[noreturn]] void refuse(const std::string& why)
{
    throw FeatureError(FeatureError::Reason::description, {}, "The camera's description is damaged: " + why);
}

} // namespace

std::vector<std::string> checkXml(const std::string& description)
{
    Seen seen;
    xmlSAXHandler handler{};
    handler.startElement = startElement;
    handler.endElement = endElement;
    handler.internalSubset = documentType;
    handler.getEntity = predefinedEntity;
    handler.error = keepProblem;
    handler.fatalError = keepProblem;
    handler.warning = ignoreWarning;
    constexpr std::size_t most = std::size_t{1} << 30;
    if (description.empty() || description.size() > most)
        refuse("it is empty, or larger than can be meant");
    xmlResetLastError();
    const int result = xmlSAXUserParseMemory(&handler, &seen, description.data(), static_cast<int>(description.size()));
    if (result != 0 || !seen.problem.empty())
        refuse(seen.problem.empty() ? "it is no XML" : seen.problem);
    if (seen.documentType)
        refuse("it has a document type of its own");
    if (seen.otherRoot)
        refuse("it describes no registers");
    if (seen.tooDeep)
        refuse("its elements are nested too deeply");
    return std::move(seen.offsets);
}

} // namespace zuGevFeatures

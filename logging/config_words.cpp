// The words in the settings. On the thread that configures logging.
#include "logging/config_words.h"

#include "logging/logsvc_client.h"

#include <cstdlib>
#include <sstream>
#include <utility>

namespace zuLogging::detail {

namespace {

constexpr std::pair<const char*, LogDestination> destination_words[] = {
    {"none", LogDestination::none},     {"file", LogDestination::file},     {"cout", LogDestination::cout},
    {"cerr", LogDestination::cerr},     {"trace", LogDestination::trace},   {"console", LogDestination::console},
    {"evtlog", LogDestination::evtlog}, {"logsvc", LogDestination::logsvc},
};

constexpr std::pair<const char*, std::uint32_t> level_words[] = {
    {"none", 0x00},    {"fatal", 0x01}, {"err", 0x03},   {"error", 0x03}, {"warn", 0x07},
    {"warning", 0x07}, {"info", 0x0F},  {"trace", 0x1F}, {"debug", 0x3F}, {"all", 0xFF},
};

constexpr std::pair<const char*, bool> boolean_words[] = {
    {"true", true},   {"on", true},   {"enabled", true},   {"1", true},
    {"false", false}, {"off", false}, {"disabled", false}, {"0", false},
};

template <typename Value, std::size_t Size>
const Value* find_word(const std::pair<const char*, Value> (&words)[Size], const std::string& word)
{
    for (const auto& entry : words)
        if (word == entry.first)
            return &entry.second;
    return nullptr;
}

/// Reads all of `text` as a number; false if there is something behind it.
bool read_number(const std::string& text, int base, unsigned long& value)
{
    char* end = nullptr;
    value = std::strtoul(text.c_str(), &end, base);
    return end == text.c_str() + text.size();
}

} // namespace

LogDestination parse_destination(const std::string& word)
{
    if (const LogDestination* const found = find_word(destination_words, word))
        return *found;
    throw LogSvcError("Unknown log destination specified: " + word);
}

std::uint32_t parse_level(const std::string& word)
{
    if (const std::uint32_t* const found = find_word(level_words, word))
        return *found;
    constexpr unsigned long all_ones = 0xFFFFFFFF;
    unsigned long value = 0;
    const bool hexadecimal = word.size() >= 3 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    // A larger value reads as all ones where the type has 32 bits.
    if (!hexadecimal || !read_number(word, 16, value) || value >= all_ones)
        throw LogSvcError("Unknown log level specified: " + word);
    return static_cast<std::uint32_t>(value);
}

bool parse_boolean(const std::string& word)
{
    if (const bool* const found = find_word(boolean_words, word))
        return *found;
    throw LogSvcError("Unrecognized boolean value string specified: " + word);
}

zuPlatform::SocketAddress parse_sockaddr(const std::string& text)
{
    std::istringstream in(text);
    std::string address;
    std::string port;
    std::getline(in, address, ':');
    std::getline(in, port);
    unsigned long number = 0;
    zuPlatform::SocketAddress result;
    if (port.empty() || port[0] < '1' || port[0] > '9' || !read_number(port, 10, number) || number >= 0x10000 ||
        !zuPlatform::parseIpv4(address.c_str(), result.address))
        throw LogSvcError("Failed to parse socket address string");
    result.port = zuPlatform::hostToNetwork16(static_cast<std::uint16_t>(number));
    return result;
}

std::string mandatory_key(const boost::property_tree::ptree& settings, const std::string& key)
{
    try {
        return settings.get<std::string>(key);
    } catch (const boost::property_tree::ptree_error&) {
        throw LogSvcError("The configuration set does not contain the requested parameter");
    }
}

std::string optional_key(const boost::property_tree::ptree& settings, const std::string& key,
                         const std::string& fallback)
{
    try {
        return settings.get(key, fallback);
    } catch (const boost::property_tree::ptree_error&) {
        throw LogSvcError("Unexpected failure when accessing the log config property tree");
    }
}

} // namespace zuLogging::detail

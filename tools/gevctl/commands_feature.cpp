// Features by name: list, get, set, run, describe, save, load, and what the shell completes.
#include "features/CameraFeatures.h"
#include "genicam/DescriptionFile.h"
#include "tools/gevctl/commands.h"
#include "tools/gevctl/feature_library.h"
#include "tools/gevctl/feature_view.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace gevctl {

using zuGevClient::Connection;
using zuGevFeatures::Feature;
using zuGevFeatures::Features;
using zuGevFeatures::Kind;

namespace {

/// The camera's registers, until somebody asks to end: that ends what is under way, once, so that what has to be put
/// back still can be.
class InterruptiblePort : public zuGevFeatures::ConnectionPort {
public:
    InterruptiblePort(Connection& connection, const std::atomic<bool>& stop) : ConnectionPort(connection), stop_(stop)
    {
    }
    std::uint32_t readRegister(std::uint32_t address) override
    {
        look();
        return ConnectionPort::readRegister(address);
    }
    void writeRegister(std::uint32_t address, std::uint32_t value) override
    {
        look();
        ConnectionPort::writeRegister(address, value);
    }
    void readMemory(std::uint32_t address, void* destination, std::size_t size) override
    {
        for (std::size_t done = 0; done < size;) {
            look();
            const std::size_t piece = std::min(pieceSize, size - done);
            ConnectionPort::readMemory(static_cast<std::uint32_t>(address + done),
                                       static_cast<char*>(destination) + done, piece);
            done += piece;
        }
    }
    void writeMemory(std::uint32_t address, const void* source, std::size_t size) override
    {
        look();
        ConnectionPort::writeMemory(address, source, size);
    }

private:
    void look()
    {
        if (stop_ && !told_) {
            told_ = true;
            throw Interrupted();
        }
    }

    const std::atomic<bool>& stop_;
    bool told_ = false;
};

/// A camera with its features, in the order in which they must end.
struct Camera {
    FeatureLibrary library;
    Connection connection;
    std::shared_ptr<zuGevFeatures::Port> port;
    std::unique_ptr<Features> features;

    Camera(const Options& options, const Surroundings& around, bool open = true)
        : connection(connect(options)), port(std::make_shared<InterruptiblePort>(connection, around.stop))
    {
        if (open)
            features = library.open(port);
    }
    FeatureView view(const Feature& feature) const { return {feature, features->state(feature.name)}; }
    FeatureView view(const std::string& name) const { return view(features->describe(name)); }
};

void unlink(Camera& camera, const Options& options)
{
    if (options.access && options.access->isPrivileged())
        camera.connection.unlink();
}

void complainOf(const std::vector<zuGevFeatures::Problem>& problems, const Surroundings& around)
{
    for (const zuGevFeatures::Problem& problem : problems)
        around.err << "gevctl: " << problem.message
                   << (problem.selection.empty() ? "" : " (with " + problem.selection + ")") << '\n';
}

/// Features that are listed at this level, and the categories that still have one.
std::vector<Feature> visible(const std::vector<Feature>& all, zuGevFeatures::Visibility level)
{
    std::set<std::string> used;
    for (const Feature& feature : all) {
        if (feature.kind == Kind::category || feature.visibility > level)
            continue;
        // A category is named by the path that its members have.
        for (std::size_t end = 0; end != std::string::npos;) {
            end = feature.category.find('/', end == 0 ? 0 : end + 1);
            used.insert(feature.category.substr(0, end));
        }
    }
    std::vector<Feature> shown;
    for (const Feature& feature : all) {
        const std::string path = feature.category.empty() ? feature.name : feature.category + "/" + feature.name;
        if (feature.kind == Kind::category ? used.count(path) > 0 : feature.visibility <= level)
            shown.push_back(feature);
    }
    return shown;
}

/// NAME=VALUE.
std::pair<std::string, std::string> assignment(const std::string& word)
{
    const std::size_t at = word.find('=');
    return {word.substr(0, at), at == std::string::npos ? std::string() : word.substr(at + 1)};
}

/// Where descriptions are kept for completion; empty where the user has no such place.
std::filesystem::path cacheFolder()
{
    if (const char* const cache = std::getenv("XDG_CACHE_HOME"); cache != nullptr && *cache == '/')
        return std::filesystem::path(cache) / "zugevsvc";
    if (const char* const home = std::getenv("HOME"); home != nullptr && *home == '/')
        return std::filesystem::path(home) / ".cache" / "zugevsvc";
    return {};
}

/// One file for each maker, model, version and place of the description.
std::string cacheName(Connection& connection, const std::string& url)
{
    constexpr std::uint32_t manufacturerRegister = 0x0048; // with model, version and information behind it
    constexpr std::size_t identitySize = 0x90;
    const auto identity = connection.readMemory(manufacturerRegister, identitySize);
    std::uint64_t hash = 0xCBF29CE484222325u; // FNV-1a
    const auto add = [&](unsigned char byte) { hash = (hash ^ byte) * 0x100000001B3u; };
    for (const std::uint8_t byte : identity)
        add(byte);
    for (const char c : url)
        add(static_cast<unsigned char>(c));
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.xml", static_cast<unsigned long long>(hash));
    return name;
}

/// The features, with the description out of the cache where it is there; else it is put there.
std::unique_ptr<Features> openCached(Camera& camera)
{
    const zuGenICam::Location location = zuGenICam::locate(
        [&](std::uint32_t address, void* to, std::size_t size) { camera.connection.readMemory(address, to, size); });
    const std::filesystem::path folder = cacheFolder();
    const std::filesystem::path file = folder / cacheName(camera.connection, location.url);
    if (!folder.empty()) {
        std::ifstream in(file, std::ios::binary);
        const std::string description{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        try {
            if (!description.empty())
                return camera.library.open(camera.port, description);
        } catch (const zuGevFeatures::FeatureError&) {
            // A file that was cut short: the camera has it whole.
        }
    }
    auto features = camera.library.open(camera.port);
    if (!folder.empty()) {
        // Made under another name, so that nobody reads a half of it. Without it there is just no cache.
        std::error_code failed;
        std::filesystem::create_directories(folder, failed);
        const std::filesystem::path made = file.string() + ".new";
        std::ofstream out(made, std::ios::binary | std::ios::trunc);
        out << features->description();
        out.close();
        if (out)
            std::filesystem::rename(made, file, failed);
        if (!out || failed)
            std::filesystem::remove(made, failed);
    }
    return features;
}

} // namespace

void runFeatureList(const Options& options, const Surroundings& around)
{
    const Camera camera(options, around);
    const std::vector<Feature> all = camera.features->list();
    const std::vector<Feature> shown = visible(all, options.visibility);
    std::vector<FeatureView> views;
    for (const Feature& feature : shown)
        views.push_back(camera.view(feature));
    if (options.json) {
        Json features = Json::array();
        for (const FeatureView& view : views) {
            if (view.feature.kind != Kind::category)
                features.push_back(toJson(view));
        }
        return print(around, Json{{"features", std::move(features)}});
    }
    printTree(around.out, views);
    const std::size_t hidden = visible(all, zuGevFeatures::Visibility::guru).size() - shown.size();
    if (!options.quiet && shown.size() < all.size() && options.visibility < zuGevFeatures::Visibility::guru &&
        hidden > 0)
        around.err << "More is listed with --visibility expert or guru." << std::endl;
}

void runFeatureGet(const Options& options, const Surroundings& around)
{
    const Camera camera(options, around);
    Json values = Json::array();
    for (const std::string& name : options.features) {
        const Feature feature = camera.features->describe(name);
        const zuGevFeatures::Value value = camera.features->get(name);
        const std::string unit = feature.unit.empty() ? "" : " " + feature.unit;
        if (options.json)
            values.push_back({{"name", name}, {"value", toJson(value)}, {"unit", feature.unit}});
        else if (options.features.size() == 1)
            around.out << camera.features->getText(name) << unit << '\n';
        else
            around.out << name << ": " << camera.features->getText(name) << unit << '\n';
    }
    if (options.json)
        print(around, Json{{"features", std::move(values)}});
}

void runFeatureSet(const Options& options, const Surroundings& around)
{
    Camera camera(options, around);
    Json done = Json::array();
    for (const std::string& word : options.features) {
        const auto [name, text] = assignment(word);
        const zuGevFeatures::Outcome outcome = camera.features->setTextAndTell(name, text);
        const std::string unit = camera.features->describe(name).unit;
        if (options.json) {
            Json entry{{"name", name}, {"asAsked", outcome.asAsked}, {"changes", Json::array()}};
            if (outcome.value)
                entry["value"] = toJson(*outcome.value);
            for (const zuGevFeatures::Change& change : outcome.changes)
                entry["changes"].push_back(toJson(change));
            done.push_back(std::move(entry));
            continue;
        }
        around.out << name << ": " << (outcome.value ? outcome.text : text) << (unit.empty() ? "" : " " + unit);
        if (!outcome.asAsked)
            around.out << ", which the camera made of " << text;
        around.out << '\n';
        for (const zuGevFeatures::Change& change : outcome.changes) {
            if (!options.quiet)
                around.out << "  " << change.feature << ": " << changeText(change) << '\n';
        }
    }
    unlink(camera, options);
    if (options.json)
        print(around, Json{{"set", std::move(done)}});
}

void runFeatureRun(const Options& options, const Surroundings& around)
{
    Camera camera(options, around);
    const std::chrono::milliseconds wait(options.durationMs.value_or(defaultCommandWaitMs));
    Json done = Json::array();
    for (const std::string& name : options.features) {
        camera.features->execute(name);
        const bool ended = camera.features->waitForEnd(name, wait);
        if (options.json)
            done.push_back({{"name", name}, {"ended", ended}});
        else
            around.out << name << (ended ? ": done" : ": started") << '\n';
        if (!ended && wait.count() > 0)
            throw zuGevClient::CameraError(name + " has not ended within " + std::to_string(wait.count()) + " ms",
                                           zuGevClient::Status::timeout);
    }
    unlink(camera, options);
    if (options.json)
        print(around, Json{{"run", std::move(done)}});
}

void runFeatureDescribe(const Options& options, const Surroundings& around)
{
    const Camera camera(options, around);
    Json features = Json::array();
    for (const std::string& name : options.features) {
        const FeatureView view = camera.view(name);
        if (options.json)
            features.push_back(toJson(view));
        else
            printDescription(around.out, view);
    }
    if (options.json)
        print(around, Json{{"features", std::move(features)}});
}

void runFeatureSave(const Options& options, const Surroundings& around)
{
    Camera camera(options, around);
    const zuGevFeatures::Saved saved = camera.features->save();
    unlink(camera, options);
    store(options.file, {saved.json.begin(), saved.json.end()}, around);
    const bool toFile = !options.file.empty() && options.file != "-";
    if (options.json && toFile)
        print(around, Json{{"values", saved.values}, {"file", options.file}, {"problems", toJson(saved.problems)}});
    else if (toFile && !options.quiet)
        around.out << saved.values << " values written to " << options.file << '\n';
    if (!options.json)
        complainOf(saved.problems, around);
    if (!saved.problems.empty())
        throw zuGevFeatures::FeatureError(zuGevFeatures::FeatureError::Reason::notReadable, {},
                                          std::to_string(saved.problems.size()) + " features could not be saved");
}

void runFeatureLoad(const Options& options, const Surroundings& around)
{
    const std::vector<std::uint8_t> bytes = load(options.file, around);
    Camera camera(options, around);
    const zuGevFeatures::Loaded loaded = camera.features->load({bytes.begin(), bytes.end()});
    unlink(camera, options);
    if (options.json)
        print(around, Json{{"values", loaded.values}, {"problems", toJson(loaded.problems)}});
    else if (!options.quiet)
        around.out << loaded.values << " values stand as they were saved\n";
    if (!options.json)
        complainOf(loaded.problems, around);
    if (!loaded.problems.empty())
        throw zuGevFeatures::FeatureError(zuGevFeatures::FeatureError::Reason::notWritable, {},
                                          std::to_string(loaded.problems.size()) + " features could not be loaded");
}

void runFeatureComplete(const Options& options, const Surroundings& around)
{
    Camera camera(options, around, false);
    camera.features = openCached(camera);
    const std::string word = options.features.empty() ? std::string() : options.features.front();
    if (word.empty() || word.back() != '=') {
        for (const Feature& feature : camera.features->list()) {
            if (feature.kind != Kind::category)
                around.out << feature.name << '\n';
        }
        return;
    }
    const FeatureView view = camera.view(word.substr(0, word.size() - 1));
    for (const zuGevFeatures::Entry& entry : view.state.entries) {
        if (entry.available)
            around.out << entry.name << '\n';
    }
    if (view.feature.kind == Kind::boolean)
        around.out << "true\nfalse\n";
}

} // namespace gevctl

// Sets a camera up by the names of its features. The beginning of docs/features.md.
#include "features/CameraFeatures.h"

#include <cstdio>

using namespace zuGevClient;
using namespace zuGevFeatures;

int main(int argc, char** argv)
{
    const auto camera = parseEndpoint(argc == 2 ? argv[1] : "");
    if (!camera) {
        std::fprintf(stderr, "Usage: gevfeatures-example CAMERA-IP\n");
        return 2;
    }
    try {
        Connection connection; // finds the daemon of this machine
        connection.setDestination(*camera);
        connection.link(LinkMode::control());
        const auto features = openFeatures(connection);

        std::printf("Model:    %s\n", features->getText("DeviceModelName").c_str());
        features->set("PixelFormat", "Mono16");
        features->set("ExposureTime", 5000);
        std::printf("Exposure: %s %s\n", features->getText("ExposureTime").c_str(),
                    features->describe("ExposureTime").unit.c_str());

        const Outcome outcome = features->setAndTell("Width", 320);
        std::printf("Width:    %s\n", outcome.text.c_str());
        for (const Change& change : outcome.changes)
            std::printf("          %s was %s and is %s\n", change.feature.c_str(), change.before.text.c_str(),
                        change.after.text.c_str());

        features->execute("AcquisitionStart");
        if (!features->waitForEnd("AcquisitionStart", Milliseconds(1000)))
            std::printf("The camera is still starting\n");
        features->execute("AcquisitionStop");

        features->set("Width", 99999); // more than it has
        return 0;
    } catch (const FeatureError& error) {
        std::printf("Refused:  %s\n", error.what());
        return 5;
    } catch (const std::exception& error) { // NoDaemonError, CameraError, ...
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

// A complete client: takes control of a camera, reads what it is, shows what happens to the link, and gives it back.
// Usage: gevclient-example CAMERA-IP
#include "client/GevClient.h"

#include <cstdio>
#include <string>

using namespace zuGevClient;

int main(int argc, char** argv)
{
    const auto camera = parseEndpoint(argc == 2 ? argv[1] : "");
    if (!camera) {
        std::fprintf(stderr, "Usage: gevclient-example CAMERA-IP\n");
        return 2;
    }
    try {
        Connection connection; // finds the daemon of this machine
        connection.setEventHandler([](Event event) { std::printf("Event: %s\n", toString(event)); });
        connection.setDestination(*camera);
        connection.link(LinkMode::control());

        const std::vector<std::uint8_t> model = connection.readMemory(0x0068, 32);
        std::printf("Model:     %s\n", std::string(model.begin(), model.end()).c_str());
        std::printf("Version:   0x%08X\n", connection.readRegister(0x0000));
        const Heartbeat heartbeat = connection.heartbeat();
        std::printf("Heartbeat: %lld ms, read every %lld ms\n", static_cast<long long>(heartbeat.timeout.count()),
                    static_cast<long long>((heartbeat.timeout - heartbeat.margin).count()));

        connection.unlink();
        return 0;
    } catch (const NoDaemonError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 3;
    } catch (const CameraError& error) {
        std::fprintf(stderr, "%s (%d)\n", error.what(), error.status());
        return 4;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}

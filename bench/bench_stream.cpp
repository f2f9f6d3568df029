// What receiving a stream costs: the receiver beside a bare loop of recvmmsg into a frame, gathering for the same time,
// in processor time for each gigabyte. Sender and receivers are processes, pinned apart where there are two processors.
#include "bench/measure.h"
#include "stream/Stream.h"
#include "tests/support/gvsp_packets.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <boost/program_options.hpp>

namespace {

using namespace zuBench;
namespace gvsp = zuTest::gvsp;

constexpr std::uint32_t senderAddress = 0x7F000B01;
constexpr std::uint32_t receiverAddress = 0x7F000B02;
constexpr std::uint32_t side = 1024; // pixels of a picture, Mono8
constexpr std::size_t frameSize = std::size_t{side} * side;

struct Options {
    unsigned rounds = 3;
    unsigned seconds = 3;
    unsigned rate = 100; // frames a second
    unsigned gatherUs = 1000;
    int socketBuffer = 16 << 20;
};

/// What the sender and a receiver share.
struct Shared {
    std::atomic<std::uint16_t> port;
    std::atomic<std::uint32_t> sent; ///< frames
    std::atomic<bool> done;
    // The receiver's results.
    double cpuSeconds;
    std::uint64_t frames;
    std::uint64_t bytes;
    std::uint64_t packets;
    std::uint64_t calls;
    std::uint64_t lost;
    int granted;
    double latencyMs[3]; ///< from a frame's last packet to the application: median, 99th percentile, most
};

void pinTo(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(processor % ::sysconf(_SC_NPROCESSORS_CONF)), &set);
    ::sched_setaffinity(0, sizeof set, &set);
}

double ownCpuSeconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

sockaddr_in addressOf(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

int makeSocket(std::uint32_t address)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in local = addressOf(address, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
        throw std::runtime_error("no socket");
    return fd;
}

/// Sends pictures at a steady rate, each within its frame time, in bursts of eight packets.
void send(const Options& options, unsigned packetSize, Shared& shared)
{
    pinTo(0);
    const int fd = makeSocket(senderAddress);
    int bytes = 4 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    while (shared.port.load() == 0)
        ::usleep(1000);
    sockaddr_in to = addressOf(receiverAddress, shared.port.load());
    gvsp::Picture picture;
    picture.width = picture.height = side;
    std::vector<gvsp::Bytes> packets = gvsp::imageFrame({1}, picture, gvsp::pattern(frameSize, 1), packetSize);
    const double period = 1.0 / options.rate;
    const double start = nowSeconds();
    const unsigned frames = options.seconds * options.rate;
    for (unsigned frame = 0; frame < frames; ++frame) {
        for (gvsp::Bytes& packet : packets) {
            packet[2] = static_cast<std::uint8_t>((frame + 1) >> 8);
            packet[3] = static_cast<std::uint8_t>(frame + 1);
        }
        constexpr std::size_t burst = 8;
        for (std::size_t at = 0; at < packets.size(); at += burst) {
            // Nine tenths of the period, as a camera whose link is about full.
            const double due =
                start + frame * period + 0.9 * period * static_cast<double>(at) / static_cast<double>(packets.size());
            while (nowSeconds() < due) {
            }
            mmsghdr messages[burst] = {};
            iovec pieces[burst];
            const std::size_t count = std::min(burst, packets.size() - at);
            for (std::size_t i = 0; i < count; ++i) {
                pieces[i] = {packets[at + i].data(), packets[at + i].size()};
                messages[i].msg_hdr.msg_name = &to;
                messages[i].msg_hdr.msg_namelen = sizeof to;
                messages[i].msg_hdr.msg_iov = &pieces[i];
                messages[i].msg_hdr.msg_iovlen = 1;
            }
            ::sendmmsg(fd, messages, static_cast<unsigned>(count), 0);
        }
        shared.sent.store(frame + 1);
    }
    shared.done.store(true);
}

/// The floor: a loop that knows where everything goes and checks nothing but the ids.
void receiveBare(const Options& options, unsigned packetSize, Shared& shared)
{
    pinTo(1);
    const int fd = makeSocket(receiverAddress);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &options.socketBuffer, sizeof options.socketBuffer);
    socklen_t size = sizeof shared.granted;
    ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &shared.granted, &size);
    shared.granted /= 2;
    sockaddr_in local{};
    socklen_t localSize = sizeof local;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize);

    constexpr std::size_t batch = 128;
    const std::size_t payload = gvsp::payloadSize(packetSize, false);
    std::vector<std::uint8_t> frame(frameSize + payload);
    std::vector<mmsghdr> messages(batch);
    std::vector<iovec> pieces(2 * batch);
    std::vector<std::uint8_t> headers(batch * 64);
    std::uint32_t next = 0; // id of the packet expected
    const auto last = static_cast<std::uint32_t>((frameSize + payload - 1) / payload + 1);
    shared.port.store(ntohs(local.sin_port));
    double cpu = ownCpuSeconds();
    bool any = false;
    for (;;) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, 200) == 0) {
            if (shared.done.load())
                break;
            continue;
        }
        if (!any)
            cpu = ownCpuSeconds();
        any = true;
        ::usleep(options.gatherUs);
        std::uint32_t id = next;
        for (std::size_t i = 0; i < batch; ++i) {
            const bool data = id != 0 && id != last;
            pieces[2 * i] = {&headers[64 * i], data ? std::size_t{8} : std::size_t{64}};
            pieces[2 * i + 1] = {&frame[data ? (id - 1) * payload : 0], data ? payload : 0};
            messages[i].msg_hdr.msg_iov = &pieces[2 * i];
            messages[i].msg_hdr.msg_iovlen = data ? 2 : 1;
            id = id == last ? 0 : id + 1;
        }
        const int count = ::recvmmsg(fd, messages.data(), batch, MSG_DONTWAIT, nullptr);
        ++shared.calls;
        for (int i = 0; i < count; ++i) {
            const std::uint8_t* const header = &headers[64 * static_cast<std::size_t>(i)];
            const auto packet = static_cast<std::uint32_t>(header[5] << 16 | header[6] << 8 | header[7]);
            shared.lost += packet == next ? 0 : 1;
            next = packet == last ? 0 : packet + 1;
            shared.frames += packet == last ? 1 : 0;
            shared.bytes += messages[static_cast<std::size_t>(i)].msg_len;
            ++shared.packets;
        }
    }
    shared.cpuSeconds = ownCpuSeconds() - cpu;
}

void receive(const Options& options, unsigned packetSize, Shared& shared)
{
    pinTo(1);
    zuStream::Settings settings;
    settings.local = {receiverAddress, 0};
    settings.source = {senderAddress, 0};
    settings.packetSize = packetSize;
    settings.gather = std::chrono::microseconds(options.gatherUs);
    settings.socketBuffer = options.socketBuffer;
    settings.resend.enabled = false;
    zuStream::Receiver receiver(settings);
    std::list<std::vector<std::uint8_t>> memory;
    for (int i = 0; i < 8; ++i)
        receiver.queue(receiver.announce(memory.emplace_back(frameSize).data(), frameSize));
    shared.port.store(receiver.local().port);
    double cpu = ownCpuSeconds();
    std::vector<double> latencies;
    for (bool any = false;;) {
        zuStream::Buffer* const buffer = receiver.wait(std::chrono::milliseconds(200));
        if (buffer == nullptr) {
            if (shared.done.load())
                break;
            continue;
        }
        if (!any)
            cpu = ownCpuSeconds();
        any = true;
        latencies.push_back(nowSeconds() * 1e3 - static_cast<double>(buffer->frame().lastPacketNs) * 1e-6);
        receiver.queue(*buffer);
    }
    shared.cpuSeconds = ownCpuSeconds() - cpu;
    const zuStream::Statistics counts = receiver.statistics();
    shared.frames = counts.framesComplete;
    shared.bytes = counts.bytes;
    shared.packets = counts.packets;
    shared.calls = counts.batches;
    shared.lost = counts.packetsMissing;
    shared.granted = counts.socketBufferGranted;
    if (latencies.empty())
        return;
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double part) {
        return latencies[static_cast<std::size_t>(part * static_cast<double>(latencies.size() - 1))];
    };
    shared.latencyMs[0] = at(0.5);
    shared.latencyMs[1] = at(0.99);
    shared.latencyMs[2] = latencies.back();
}

/// Seconds of processor time for a gigabyte.
double measure(const Options& options, unsigned packetSize, const char* name,
               const std::function<void(Shared&)>& receiver)
{
    auto* const shared = new (sharedMemory(sizeof(Shared))) Shared{};
    Part other([&] { receiver(*shared); });
    Part sender([&] { send(options, packetSize, *shared); });
    sender.wait();
    other.wait();
    const double perGigabyte = shared->cpuSeconds / (static_cast<double>(shared->bytes) * 1e-9);
    std::printf("%6u  %-9s %8.3f %8llu of %u %10llu %8.1f %8llu %10d\n", packetSize, name, perGigabyte,
                static_cast<unsigned long long>(shared->frames), options.seconds * options.rate,
                static_cast<unsigned long long>(shared->packets),
                static_cast<double>(shared->packets) / static_cast<double>(std::max<std::uint64_t>(shared->calls, 1)),
                static_cast<unsigned long long>(shared->lost), shared->granted);
    if (shared->latencyMs[0] > 0)
        std::printf(
            "        from the reading of a frame's last packet to the application: %.3f ms, p99 %.3f, most %.3f\n",
            shared->latencyMs[0], shared->latencyMs[1], shared->latencyMs[2]);
    std::fflush(stdout);
    return perGigabyte;
}

void run(const Options& options)
{
    std::printf("%u by %u Mono8, %u frames a second for %u s, gathered for %u us\n", side, side, options.rate,
                options.seconds, options.gatherUs);
    std::printf("packet  receiver   s for 1 GB  frames     packets  a call     lost  socket buffer\n");
    for (const unsigned packetSize : {1400u, 8000u}) {
        std::vector<double> ratios;
        for (unsigned round = 0; round < options.rounds; ++round) {
            double bare = 0;
            double own = 0;
            const auto first = [&] {
                bare = measure(options, packetSize, "bare",
                               [&](Shared& shared) { receiveBare(options, packetSize, shared); });
            };
            if (round % 2 == 0)
                first();
            own =
                measure(options, packetSize, "Receiver", [&](Shared& shared) { receive(options, packetSize, shared); });
            if (round % 2 != 0)
                first();
            ratios.push_back(own / bare);
        }
        std::sort(ratios.begin(), ratios.end());
        std::printf("%6u  Receiver / bare: %.2f (%.2f to %.2f)   (target at most 1.3)\n", packetSize,
                    ratios[ratios.size() / 2], ratios.front(), ratios.back());
    }
}

} // namespace

int main(int argc, char** argv)
{
    namespace po = boost::program_options;
    Options options;
    po::options_description description("Measures the stream receiver");
    description.add_options()("help", "this text");
    description.add_options()("rounds", po::value(&options.rounds)->default_value(options.rounds),
                              "for each packet size; the order turns round from one to the next");
    description.add_options()("seconds", po::value(&options.seconds)->default_value(options.seconds), "of each stream");
    description.add_options()("rate", po::value(&options.rate)->default_value(options.rate), "frames a second");
    description.add_options()("gather", po::value(&options.gatherUs)->default_value(options.gatherUs), "microseconds");
    description.add_options()("socket-buffer", po::value(&options.socketBuffer)->default_value(options.socketBuffer),
                              "bytes that the system is asked for");
    try {
        po::variables_map values;
        po::store(po::parse_command_line(argc, argv, description), values);
        po::notify(values);
        if (values.count("help") != 0) {
            std::printf("%s", (std::ostringstream() << description).str().c_str());
            return 0;
        }
        if (options.rounds == 0 || options.seconds == 0 || options.rate == 0)
            throw std::invalid_argument("rounds, seconds and rate must be positive");
        run(options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_stream: %s\n", failure.what());
        return 1;
    }
    return 0;
}

// Our side of the DNS-SD tests: the library's announcing and finding with the real Avahi daemon.
//
//     dns_sd_tool advertise PORT HOSTNAME CODE    takes the lines "start", "stop" and "end" from its standard input
//     dns_sd_tool find SECONDS                    takes the line "cancel", or none
//
// Standard output carries JSON, one object a line, each with "event": what goes to the log ("log"), what is told to the
// one who asked ("failure", "found", "error", "cancelled"), each line taken ("done"), and at the end ("threads") how
// many threads are left when everything is destroyed.

#include "OrlinthCore/Pairing/PairAdvertiser.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/read_until.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace orlinth;
using nlohmann::json;

namespace {

void tell(const json& event) {
    const std::string line = event.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

class StandardOutputLog final : public platform::Log {
public:
    void write(platform::LogLevel /*level*/, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override {
        tell({{"event", "log"}, {"subsystem", subsystem}, {"category", category}, {"message", message}});
    }
};

/// The lines of standard input, on the context's thread.
class Lines {
public:
    Lines(asio::io_context& context, std::function<void(const std::string&)> onLine)
        : input_(context, ::dup(STDIN_FILENO)), onLine_(std::move(onLine)) {
        readNext();
    }
    void close() { input_.close(); }

private:
    void readNext() {
        asio::async_read_until(input_, asio::dynamic_buffer(text_), '\n',
                               [this](std::error_code code, std::size_t size) {
                                   if (code) {
                                       return;
                                   }
                                   const std::string line = text_.substr(0, size - 1);
                                   text_.erase(0, size);
                                   onLine_(line);
                                   if (input_.is_open()) {
                                       readNext();
                                   }
                               });
    }

    asio::posix::stream_descriptor input_;
    std::function<void(const std::string&)> onLine_;
    std::string text_;
};

void advertise(const std::string& port, const std::string& hostname, const std::string& code) {
    asio::io_context context;
    platform::LinuxSystem linux(context);
    const platform::System real = linux.system();
    StandardOutputLog log;
    PairingPayload payload;
    payload.peer_pubkey = "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA=";
    payload.peer_ip = "192.168.77.1";
    payload.peer_port = std::stoi(port);
    payload.peer_subnet = "192.168.77.0/24";
    payload.peer_hostname = hostname;
    payload.peer_mac = "02:00:5e:10:00:01";
    payload.pairing_secret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
    PairAdvertiser advertiser(real.services, log, payload, code, context.get_executor());
    const auto onFailure = [](const std::string& reason) { tell({{"event", "failure"}, {"message", reason}}); };
    Lines* lines = nullptr;
    Lines input(context, [&](const std::string& line) {
        if (line == "start") {
            advertiser.start({.onPublished = {}, .onFailure = onFailure});
        } else if (line == "stop") {
            advertiser.stop();
        } else {
            lines->close();
        }
        tell({{"event", "done"}, {"line", line}});
    });
    lines = &input;
    context.run();
}

Task<> findAndTell(platform::System system, Seconds time) {
    const std::vector<platform::ServiceRecord> services = co_await system.services.find("_orlinth-pair._tcp.", time);
    json found = json::array();
    for (const platform::ServiceRecord& service : services) {
        found.push_back({{"name", service.name},
                         {"type", service.type},
                         {"domain", service.domain},
                         {"port", service.port},
                         {"txt", service.txt}});
    }
    tell({{"event", "found"}, {"services", found}});
}

void tellEnd(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const platform::Cancelled&) {
        tell({{"event", "cancelled"}});
    } catch (const std::exception& failure) {
        tell({{"event", "error"}, {"message", describe(failure)}});
    }
}

void find(const std::string& seconds) {
    asio::io_context context;
    platform::LinuxSystem linux(context);
    asio::cancellation_signal cancel;
    Lines input(context, [&cancel](const std::string&) { cancel.emit(asio::cancellation_type::terminal); });
    const auto ended = [&input](const std::exception_ptr& error) {
        input.close();
        tellEnd(error);
    };
    asio::co_spawn(context, findAndTell(linux.system(), Seconds(std::stod(seconds))),
                   asio::bind_cancellation_slot(cancel.slot(), ended));
    tell({{"event", "searching"}});
    context.run();
}

#if defined(__has_feature) && __has_feature(thread_sanitizer)
constexpr std::ptrdiff_t threadsOfTheSanitizer = 1;
#else
constexpr std::ptrdiff_t threadsOfTheSanitizer = 0;
#endif

std::ptrdiff_t countThreads() {
    const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return std::distance(begin(tasks), end(tasks)) - threadsOfTheSanitizer;
}

/// The system lists a thread for a moment after it was joined; one that nobody has joined stays.
std::ptrdiff_t threadsThatStay() {
    constexpr int attempts = 100;
    std::ptrdiff_t count = countThreads();
    for (int attempt = 1; attempt < attempts && count > 1; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        count = countThreads();
    }
    return count;
}

int run(std::span<char*> words) {
    const std::string command = words.size() > 1 ? words[1] : "";
    if (command == "advertise" && words.size() == 5) {
        advertise(words[2], words[3], words[4]);
    } else if (command == "find" && words.size() == 3) {
        find(words[2]);
    } else {
        std::fputs("usage: dns_sd_tool advertise PORT HOSTNAME CODE | find SECONDS\n", stderr);
        return 2;
    }
    tell({{"event", "threads"}, {"count", threadsThatStay()}});
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    try {
        return run(std::span(arguments, static_cast<std::size_t>(count)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dns_sd_tool: %s\n", error.what());
        return 1;
    }
}

#include "platform/linux/LinuxHttpsClient.h"

#include "base/Text.h"
#include "platform/Event.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"
#include "platform/linux/CurlLibrary.h"
#include "platform/linux/Freer.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <optional>
#include <set>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using Kind = HttpError::Kind;

using detail::Freer;
void freeEasy(CURL* easy) noexcept {
    curl().curl_easy_cleanup(easy);
}
void freeMulti(CURLM* multi) noexcept {
    curl().curl_multi_cleanup(multi);
}
void freeUrl(CURLU* url) noexcept {
    curl().curl_url_cleanup(url);
}
void freeText(char* text) noexcept {
    curl().curl_free(text);
}
using EasyPtr = std::unique_ptr<CURL, Freer<freeEasy>>;
using MultiPtr = std::unique_ptr<CURLM, Freer<freeMulti>>;
using UrlPtr = std::unique_ptr<CURLU, Freer<freeUrl>>;
using CurlText = std::unique_ptr<char, Freer<freeText>>;

// --- What failed ---

/// The library's codes as far as a caller decides by them; every other one is Kind::other.
constexpr std::array<std::pair<CURLcode, Kind>, 22> kinds{{
    {CURLE_OPERATION_TIMEDOUT, Kind::timedOut},
    {CURLE_COULDNT_RESOLVE_HOST, Kind::cannotFindHost},
    {CURLE_COULDNT_RESOLVE_PROXY, Kind::cannotFindHost},
    {CURLE_COULDNT_CONNECT, Kind::cannotConnect},
    {CURLE_SEND_ERROR, Kind::connectionLost},
    {CURLE_RECV_ERROR, Kind::connectionLost},
    {CURLE_GOT_NOTHING, Kind::connectionLost},
    {CURLE_PARTIAL_FILE, Kind::connectionLost},
    {CURLE_SSL_CONNECT_ERROR, Kind::untrusted},
    {CURLE_PEER_FAILED_VERIFICATION, Kind::untrusted},
    {CURLE_SSL_CACERT_BADFILE, Kind::untrusted},
    {CURLE_SSL_CERTPROBLEM, Kind::untrusted},
    {CURLE_SSL_CIPHER, Kind::untrusted},
    {CURLE_SSL_CRL_BADFILE, Kind::untrusted},
    {CURLE_SSL_ISSUER_ERROR, Kind::untrusted},
    {CURLE_SSL_INVALIDCERTSTATUS, Kind::untrusted},
    {CURLE_SSL_PINNEDPUBKEYNOTMATCH, Kind::untrusted},
    {CURLE_SSL_CLIENTCERT, Kind::untrusted},
    {CURLE_USE_SSL_FAILED, Kind::untrusted},
    {CURLE_URL_MALFORMAT, Kind::invalidURL},
    {CURLE_UNSUPPORTED_PROTOCOL, Kind::invalidURL},
    {CURLE_FILESIZE_EXCEEDED, Kind::tooLarge},
}};

Kind kindOf(CURLcode code) {
    const auto* row = std::ranges::find(kinds, code, &std::pair<CURLcode, Kind>::first);
    return row != kinds.end() ? row->second : Kind::other;
}

/// The library has one code for everything that ends a TLS handshake; these texts mean that the connection broke.
bool brokeInHandshake(std::string_view text) {
    return text.find("SSL_ERROR_SYSCALL") != std::string_view::npos ||
           text.find("unexpected eof") != std::string_view::npos ||
           text.find(std::strerror(ECONNRESET)) != std::string_view::npos ||
           text.find(std::strerror(EPIPE)) != std::string_view::npos;
}

/// The same with what the code alone does not tell.
Kind kindOf(CURLcode code, CURL* easy, std::string_view text) {
    long systemError = 0;
    curl().curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &systemError);
    if (code == CURLE_COULDNT_CONNECT && (systemError == ENETUNREACH || systemError == ENETDOWN)) {
        return Kind::notConnected;
    }
    if (code == CURLE_SSL_CONNECT_ERROR && brokeInHandshake(text)) {
        return Kind::connectionLost;
    }
    long proxyStatus = 0;
    curl().curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &proxyStatus);
    if (code == CURLE_RECV_ERROR && proxyStatus >= 300) { // "CONNECT tunnel failed"
        const bool passing = proxyStatus == 502 || proxyStatus == 503 || proxyStatus == 504;
        return passing ? Kind::cannotConnect : Kind::other;
    }
    return kindOf(code);
}

void check(CURLcode code) {
    if (code != CURLE_OK) {
        throw HttpError(Kind::other, curl().curl_easy_strerror(code));
    }
}

// --- Where to ---

bool isLoopback(std::string host) {
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    in_addr v4{};
    if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return ntohl(v4.s_addr) >> 24U == IN_LOOPBACKNET;
    }
    in6_addr v6{};
    if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6);
    }
    return lowerCased(host) == "localhost";
}

struct Destination {
    bool loopback = false;
};

CurlText partOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    const CURLUcode code = curl().curl_url_get(url, part, &text, 0);
    if (code != CURLUE_OK) {
        throw HttpError(Kind::invalidURL, curl().curl_url_strerror(code));
    }
    return CurlText(text);
}

/// Decides by the library's own reading of the URL. @throws HttpError with Kind::invalidURL
Destination destinationOf(const std::string& text) {
    const UrlPtr url(curl().curl_url());
    if (!url) {
        throw std::bad_alloc();
    }
    if (text.find('\0') != std::string::npos) {
        throw HttpError(Kind::invalidURL, "the URL has a NUL");
    }
    // Schemes that the library was not built with are refused below, with the others.
    const CURLUcode code =
        curl().curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME | CURLU_DISALLOW_USER);
    if (code != CURLUE_OK) {
        throw HttpError(Kind::invalidURL, curl().curl_url_strerror(code));
    }
    const std::string scheme = partOf(url.get(), CURLUPART_SCHEME).get();
    const Destination destination{.loopback = isLoopback(partOf(url.get(), CURLUPART_HOST).get())};
    if (scheme != "https" && !(scheme == "http" && destination.loopback)) {
        throw HttpError(Kind::invalidURL, "only https is allowed, and http to this computer itself");
    }
    return destination;
}

// --- One request ---

/// The request's header lines, wiped when they go.
class HeaderList {
public:
    HeaderList() = default;
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    ~HeaderList() {
        for (curl_slist* line = list_; line != nullptr; line = line->next) {
            wipe(std::as_writable_bytes(std::span(line->data, std::strlen(line->data))));
        }
        curl().curl_slist_free_all(list_);
    }

    void add(std::string_view name, ByteView value) {
        // A line end in a value would begin another header, and the library drops a header of no value after a colon.
        const std::string_view separator = value.empty() ? ";" : ": ";
        SecretBytes line(name.size() + separator.size() + value.size() + 1);
        auto into = std::ranges::copy(asBytes(name), line.revealMutable().begin()).out;
        into = std::ranges::copy(asBytes(separator), into).out;
        std::ranges::copy(value, into);
        const ByteView text = line.reveal().first(line.size() - 1);
        if (std::ranges::any_of(text,
                                [](std::byte octet) { return octet < std::byte{' '} || octet == std::byte{127}; })) {
            throw HttpError(Kind::other, "a header has a control character");
        }
        append(reinterpret_cast<const char*>(line.reveal().data()));
    }

    /// Takes out a header that the library would add by itself.
    void suppress(const char* name) { append((std::string(name) + ":").c_str()); }

    [[nodiscard]] curl_slist* get() const noexcept { return list_; }

private:
    void append(const char* line) {
        curl_slist* longer = curl().curl_slist_append(list_, line);
        if (longer == nullptr) {
            throw std::bad_alloc();
        }
        list_ = longer;
    }

    curl_slist* list_ = nullptr;
};

/// Certificates that the environment names in place of the system's.
struct TrustFiles {
    std::string file;   ///< empty: the system's
    std::string folder; ///< likewise
};

std::string fromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

TrustFiles trustFromEnvironment() {
    const std::string bundle = fromEnvironment("CURL_CA_BUNDLE");
    if (!bundle.empty()) {
        return {.file = bundle, .folder = {}};
    }
    return {.file = fromEnvironment("SSL_CERT_FILE"), .folder = fromEnvironment("SSL_CERT_DIR")};
}

long millisecondsOf(Seconds timeout) {
    constexpr Seconds longest = 24h;
    constexpr std::chrono::milliseconds shortest = 1ms; // 0 would mean no limit
    const bool isMore = timeout > shortest;             // which what is not a number is not
    return (isMore ? std::chrono::ceil<std::chrono::milliseconds>(std::min(timeout, longest)) : shortest).count();
}

/// What the header "Date" says; nothing of other lines.
std::optional<EpochMilliseconds> dateOf(std::string_view line) {
    constexpr std::string_view name = "date:";
    constexpr std::size_t longest = 100;
    if (line.size() > longest || lowerCased(line.substr(0, name.size())) != name) {
        return std::nullopt;
    }
    const std::string text(line.substr(name.size()));
    const std::chrono::seconds moment(curl().curl_getdate(text.c_str(), nullptr));
    constexpr std::chrono::sys_days end = std::chrono::year(9999) / 12 / 31;
    const bool isUsable = moment > 0s && moment < end.time_since_epoch();
    return isUsable ? std::optional(EpochMilliseconds(moment)) : std::nullopt;
}

/// A request under way: what the library reads from and writes to, and whether it is done.
class Transfer {
public:
    Transfer(const Executor& queue, HttpRequest request, const TrustFiles& trust)
        : request_(std::move(request)), easy_(curl().curl_easy_init()), finished_(queue) {
        if (!easy_) {
            throw HttpError(Kind::other, curl().curl_easy_strerror(CURLE_FAILED_INIT));
        }
        const Destination destination = destinationOf(request_.url);
        setRequest();
        setSecurity(destination, trust);
        setAnswer();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() { wipe(body_); }

    [[nodiscard]] CURL* easy() const noexcept { return easy_.get(); }

    void finish(CURLcode code) {
        code_ = code;
        finished_.set();
    }
    /// Ends it with what went wrong on our side.
    void abandon(const std::string& text) {
        if (code_) {
            return; // it was done before
        }
        abandoned_ = text;
        finish(CURLE_FAILED_INIT);
    }

    /// Until it is done. @throws Cancelled
    [[nodiscard]] Task<> wait() { return finished_.wait(); }

    /// @throws HttpError
    [[nodiscard]] HttpResponse takeResponse() {
        if (!abandoned_.empty()) {
            throw HttpError(Kind::other, abandoned_);
        }
        if (tooLarge_) {
            throw HttpError(Kind::tooLarge,
                            "the answer is larger than " + std::to_string(HttpsClient::maxResponseBytes) + " bytes");
        }
        // The scheme was looked at before, so this is about the answer: its first line is not HTTP's.
        if (code_ == CURLE_UNSUPPORTED_PROTOCOL || code_ == CURLE_WEIRD_SERVER_REPLY) {
            return {};
        }
        if (code_ != CURLE_OK) {
            const std::string text =
                toUtf8(errorText_[0] != '\0' ? errorText_.data() : curl().curl_easy_strerror(*code_));
            throw HttpError(kindOf(*code_, easy(), text), text);
        }
        long status = 0;
        curl().curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &status);
        return {.status = static_cast<int>(status), .body = std::move(body_), .date = date_};
    }

private:
    template <typename Value>
    void set(CURLoption option, Value value) {
        check(curl().curl_easy_setopt(easy(), option, value)); // NOLINT(cppcoreguidelines-pro-type-vararg)
    }

    void setRequest() {
        set(CURLOPT_URL, request_.url.c_str());
        set(CURLOPT_POST, 1L);
        const ByteView body = request_.body.reveal();
        set(CURLOPT_POSTFIELDS, body.empty() ? "" : reinterpret_cast<const char*>(body.data())); // not copied
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        for (const auto& [name, value] : request_.headers) {
            headers_.add(name, value.reveal());
        }
        headers_.suppress("Expect");
        set(CURLOPT_HTTPHEADER, headers_.get());
        set(CURLOPT_TIMEOUT_MS, millisecondsOf(request_.timeout));
        set(CURLOPT_FOLLOWLOCATION, 0L);
        // One request is one request: on a connection that was kept, the library would repeat it by itself.
        set(CURLOPT_FRESH_CONNECT, 1L);
        set(CURLOPT_FORBID_REUSE, 1L);
        // With a single stream there is nothing to gain from HTTP/2, and a broken connection has one code.
        set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_QUICK_EXIT, 1L); // a name that does not resolve must not hold up whoever gave up on it
    }

    void setSecurity(const Destination& destination, const TrustFiles& trust) {
        set(CURLOPT_PROTOCOLS_STR, destination.loopback ? "http,https" : "https");
        set(CURLOPT_SSL_VERIFYPEER, 1L);
        set(CURLOPT_SSL_VERIFYHOST, 2L);
        set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
        if (destination.loopback) {
            set(CURLOPT_PROXY, ""); // this computer is not reached through another, least of all in plain text
        }
        if (trust.file.empty() && trust.folder.empty()) {
            return;
        }
        const char* file = trust.file.empty() ? nullptr : trust.file.c_str();
        const char* folder = trust.folder.empty() ? nullptr : trust.folder.c_str();
        set(CURLOPT_CAINFO, file);
        set(CURLOPT_CAPATH, folder); // null takes the system's away
        set(CURLOPT_PROXY_CAINFO, file);
        set(CURLOPT_PROXY_CAPATH, folder);
    }

    void setAnswer() {
        body_.reserve(HttpsClient::maxResponseBytes); // so that it never moves and leaves a copy behind
        set(CURLOPT_ERRORBUFFER, errorText_.data());
        set(CURLOPT_PRIVATE, this);
        set(CURLOPT_WRITEDATA, this);
        set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
        set(CURLOPT_HEADERDATA, this);
        set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    }

    /// Of every answer, also a proxy's and those before the last; a status line begins each.
    static std::size_t onHeader(const char* data, std::size_t size, std::size_t count, void* self) {
        Transfer& transfer = *static_cast<Transfer*>(self);
        const std::string_view line(data, size * count);
        if (line.starts_with("HTTP/")) {
            transfer.date_.reset();
        } else if (const std::optional<EpochMilliseconds> date = dateOf(line)) {
            transfer.date_ = date;
        }
        return line.size();
    }

    static std::size_t onBody(const char* data, std::size_t size, std::size_t count, void* self) {
        Transfer& transfer = *static_cast<Transfer*>(self);
        const ByteView piece = std::as_bytes(std::span(data, size * count));
        if (piece.size() > HttpsClient::maxResponseBytes - transfer.body_.size()) {
            transfer.tooLarge_ = true;
            return piece.size() + 1; // anything but the size ends the transfer
        }
        transfer.body_.insert(transfer.body_.end(), piece.begin(), piece.end());
        return piece.size();
    }

    HttpRequest request_;
    HeaderList headers_;
    std::array<char, CURL_ERROR_SIZE> errorText_{};
    Bytes body_;
    std::optional<EpochMilliseconds> date_;
    bool tooLarge_ = false;
    std::string abandoned_;
    std::optional<CURLcode> code_;
    EasyPtr easy_; // goes before what it points to
    Event finished_;
};

} // namespace

// --- The waits of all requests ---

/// Runs the library: it says what it waits for, and is told when that has come. Everything happens on `queue`.
struct LinuxHttpsClient::Driver : std::enable_shared_from_this<Driver> {
    explicit Driver(asio::io_context& context) : queue(asio::make_strand(context)), alarm(queue) {
        static const CURLcode initialised = curl().curl_global_init(CURL_GLOBAL_DEFAULT);
        check(initialised);
        multi.reset(curl().curl_multi_init());
        if (!multi) {
            throw HttpError(Kind::other, curl().curl_easy_strerror(CURLE_FAILED_INIT));
        }
        curl().curl_multi_setopt(multi.get(), CURLMOPT_SOCKETFUNCTION, &Driver::onSocket);
        curl().curl_multi_setopt(multi.get(), CURLMOPT_SOCKETDATA, this);
        curl().curl_multi_setopt(multi.get(), CURLMOPT_TIMERFUNCTION, &Driver::onTimer);
        curl().curl_multi_setopt(multi.get(), CURLMOPT_TIMERDATA, this);
    }

    /// The task of one request.
    static Task<HttpResponse> perform(std::shared_ptr<Driver> driver, HttpRequest request) {
        Transfer transfer(driver->queue, std::move(request), driver->trust);
        const Enlisted enlisted(*driver, transfer);
        co_await transfer.wait();
        co_return transfer.takeResponse();
    }

    /// A transfer's time with the library.
    class Enlisted {
    public:
        Enlisted(Driver& driver, Transfer& transfer) : driver_(driver), transfer_(transfer) {
            const CURLMcode code = curl().curl_multi_add_handle(driver.multi.get(), transfer.easy());
            if (code != CURLM_OK) {
                throw HttpError(Kind::other, curl().curl_multi_strerror(code));
            }
            driver.transfers.insert(&transfer);
        }
        Enlisted(const Enlisted&) = delete;
        Enlisted& operator=(const Enlisted&) = delete;
        ~Enlisted() {
            driver_.transfers.erase(&transfer_);
            curl().curl_multi_remove_handle(driver_.multi.get(), transfer_.easy());
            if (driver_.transfers.empty()) {
                driver_.setAlarm(-1); // nothing is left behind to wait for
            }
        }

    private:
        Driver& driver_;
        Transfer& transfer_;
    };

    /// A socket of the library's, under a descriptor of our own: the library closes its one when it likes.
    struct Watch {
        Watch(const Executor& executor, int number) : descriptor(executor, number) {}

        asio::posix::stream_descriptor descriptor;
        int wanted = CURL_POLL_NONE;
        bool waitsToRead = false;
        bool waitsToWrite = false;
    };

    static int onSocket(CURL* /*easy*/, curl_socket_t socket, int what, void* self, void* /*watch*/) {
        Driver& driver = *static_cast<Driver*>(self);
        if (what == CURL_POLL_REMOVE) {
            driver.watches.erase(socket);
            return 0;
        }
        try {
            driver.watch(socket, what);
        } catch (const std::exception& error) {
            // No exception may pass through the library; whoever called it looks here afterwards.
            driver.failure = describe(error);
        }
        return 0;
    }

    static int onTimer(CURLM* /*multi*/, long milliseconds, void* self) {
        static_cast<Driver*>(self)->setAlarm(milliseconds);
        return 0;
    }

    void watch(curl_socket_t socket, int what) {
        std::shared_ptr<Watch>& entry = watches[socket];
        if (!entry) {
            const int copy = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
            if (copy == -1) {
                const SystemError error = SystemError::fromErrno();
                watches.erase(socket);
                throw error;
            }
            entry = std::make_shared<Watch>(queue, copy);
        }
        entry->wanted = what;
        startWaits(socket, entry);
    }

    void startWaits(curl_socket_t socket, const std::shared_ptr<Watch>& entry) {
        if ((entry->wanted & CURL_POLL_IN) != 0 && !entry->waitsToRead) {
            startWait(socket, entry, CURL_CSELECT_IN, &Watch::waitsToRead);
        }
        if ((entry->wanted & CURL_POLL_OUT) != 0 && !entry->waitsToWrite) {
            startWait(socket, entry, CURL_CSELECT_OUT, &Watch::waitsToWrite);
        }
    }

    void startWait(curl_socket_t socket, const std::shared_ptr<Watch>& entry, int event, bool Watch::* waits) {
        using Descriptor = asio::posix::stream_descriptor;
        (*entry).*waits = true;
        entry->descriptor.async_wait(
            event == CURL_CSELECT_IN ? Descriptor::wait_read : Descriptor::wait_write,
            [weak = weak_from_this(), weakEntry = std::weak_ptr(entry), socket, event, waits](std::error_code code) {
                const std::shared_ptr<Driver> driver = weak.lock();
                const std::shared_ptr<Watch> ready = weakEntry.lock();
                // A watch that is not in the table any more has been taken back; the number may be another's by now.
                if (!driver || !ready || !driver->isCurrent(socket, ready)) {
                    return;
                }
                (*ready).*waits = false;
                driver->act(socket, code ? CURL_CSELECT_ERR : event);
                if (driver->isCurrent(socket, ready)) {
                    driver->startWaits(socket, ready);
                }
            });
    }

    [[nodiscard]] bool isCurrent(curl_socket_t socket, const std::shared_ptr<Watch>& entry) const {
        const auto found = watches.find(socket);
        return found != watches.end() && found->second == entry;
    }

    /// Zero still means "soon": the library must not be entered from its own call.
    void setAlarm(long milliseconds) {
        const std::uint64_t setting = ++alarmSetting;
        if (milliseconds < 0) {
            alarm.cancel();
            return;
        }
        alarm.expires_after(std::chrono::milliseconds(milliseconds));
        alarm.async_wait([weak = weak_from_this(), setting](std::error_code code) {
            const std::shared_ptr<Driver> driver = weak.lock();
            if (!code && driver && driver->alarmSetting == setting) {
                driver->act(CURL_SOCKET_TIMEOUT, 0);
            }
        });
    }

    void act(curl_socket_t socket, int events) {
        int running = 0;
        const CURLMcode code = curl().curl_multi_socket_action(multi.get(), socket, events, &running);
        if (code != CURLM_OK) {
            failure = curl().curl_multi_strerror(code);
        }
        finishTransfers();
    }

    void finishTransfers() {
        int left = 0;
        while (const CURLMsg* message = curl().curl_multi_info_read(multi.get(), &left)) {
            if (message->msg == CURLMSG_DONE) {
                Transfer* transfer = nullptr;
                curl().curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
                transfer->finish(message->data.result);
            }
        }
        if (!failure.empty()) {
            const std::string text = std::exchange(failure, {});
            for (Transfer* transfer : transfers) {
                transfer->abandon(text);
            }
        }
    }

    Executor queue;
    TrustFiles trust = trustFromEnvironment();
    asio::steady_timer alarm;
    std::uint64_t alarmSetting = 0; ///< counts settings, so that a handler that is already queued knows it is stale
    std::set<Transfer*> transfers;
    std::string failure; ///< of the library's own, or of one of its calls to us; concerns everything under way
    std::map<curl_socket_t, std::shared_ptr<Watch>> watches;
    MultiPtr multi; // goes first: it takes its sockets back
};

LinuxHttpsClient::LinuxHttpsClient(asio::io_context& context) : context_(context) {}

LinuxHttpsClient::~LinuxHttpsClient() = default;

/// Made at the first request: loading and initialising the library takes longer than everything else a program does at
/// its start, and most runs never ask for anything.
std::shared_ptr<LinuxHttpsClient::Driver> LinuxHttpsClient::driver() {
    const MutexLock guard(lock_);
    if (!driver_) {
        try {
            static_cast<void>(curl());
        } catch (const SystemError& error) {
            throw HttpError(Kind::other, error.description());
        }
        driver_ = std::make_shared<Driver>(context_);
    }
    return driver_;
}

Task<HttpResponse> LinuxHttpsClient::post(HttpRequest request) {
    const std::shared_ptr<Driver> used = driver();
    return runOn(used->queue, Driver::perform(used, std::move(request)));
}

} // namespace orlinth::platform

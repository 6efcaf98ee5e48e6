// The yardstick of bench/transfer: a bare loop that does the job of a transfer and nothing else.
//
//     loop receive FILE [--no-cipher] [--cpu N]        prints its port, takes one connection, ends with it
//     loop send FILE PORT [--no-cipher] [--cpu N]
//
// One thread a side, blocking calls, one buffer used again and again, ChaCha20-Poly1305 where the bytes lie. A frame is
// a 4-byte big-endian length, up to 1 MiB of data and a 16-byte tag; its nonce is its number. No handshake: the key is
// all zero, which costs as much as any other. With --no-cipher the data goes as it is: what plain TCP allows here.

#include "bench/BlockingIo.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;

constexpr std::size_t chunkBytes = std::size_t{1} << 20;
constexpr std::size_t prefixBytes = 4;
constexpr std::size_t tagBytes = 16;

void checkCipher(int result) {
    if (result <= 0) {
        throw std::runtime_error("cipher: refused");
    }
}

/// One direction's cipher with its counter; or none at all.
class Cipher {
public:
    explicit Cipher(bool sealing) : sealing_(sealing) {
        const std::array<unsigned char, 32> key{};
        checkCipher(EVP_CipherInit_ex(context_.get(), EVP_chacha20_poly1305(), nullptr, key.data(), nullptr, sealing));
    }

    /// Data, and behind it room for the tag.
    void seal(unsigned char* data, std::size_t length) {
        transform(data, length);
        checkCipher(EVP_CipherFinal_ex(context_.get(), nullptr, &unused_));
        checkCipher(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_GET_TAG, tagBytes, data + length));
    }

    /// Data, and behind it the tag.
    void open(unsigned char* data, std::size_t length) {
        checkCipher(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG, tagBytes, data + length));
        transform(data, length);
        checkCipher(EVP_CipherFinal_ex(context_.get(), nullptr, &unused_));
    }

private:
    struct Free {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };

    void transform(unsigned char* data, std::size_t length) {
        std::array<unsigned char, 12> nonce{};
        std::memcpy(nonce.data() + 4, &counter_, sizeof counter_);
        ++counter_;
        checkCipher(EVP_CipherInit_ex(context_.get(), nullptr, nullptr, nullptr, nonce.data(), sealing_));
        checkCipher(EVP_CipherUpdate(context_.get(), data, &unused_, data, static_cast<int>(length)));
    }

    std::unique_ptr<EVP_CIPHER_CTX, Free> context_{EVP_CIPHER_CTX_new()};
    int sealing_;
    std::uint64_t counter_ = 0;
    int unused_ = 0;
};

struct Arguments {
    bool receiving = false;
    bool cipher = true;
    int processor = -1;
    std::string file;
    std::uint16_t port = 0;
};

Arguments parse(std::vector<std::string_view> words) {
    Arguments arguments;
    std::vector<std::string_view> places;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--no-cipher") {
            arguments.cipher = false;
        } else if (words[i] == "--cpu" && i + 1 < words.size()) {
            arguments.processor = numberFrom(words[++i]);
        } else {
            places.push_back(words[i]);
        }
    }
    arguments.receiving = !places.empty() && places[0] == "receive";
    const bool sending = !places.empty() && places[0] == "send";
    if (!(arguments.receiving && places.size() == 2) && !(sending && places.size() == 3)) {
        throw std::invalid_argument("usage: loop receive FILE | loop send FILE PORT   [--no-cipher] [--cpu N]");
    }
    arguments.file = places[1];
    if (sending) {
        arguments.port = static_cast<std::uint16_t>(numberFrom(places[2]));
    }
    return arguments;
}

void pin(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(processor), &set);
    checkSystem(sched_setaffinity(0, sizeof set, &set), "pin");
}

std::vector<unsigned char> makeBuffer() {
    return std::vector<unsigned char>(prefixBytes + chunkBytes + tagBytes);
}

void sendFile(const Arguments& arguments) {
    const Descriptor connection = connectToLoopback(arguments.port);
    const Descriptor file(checkSystem(open(arguments.file.c_str(), O_RDONLY | O_CLOEXEC), "open"));

    Cipher cipher(true);
    const std::size_t overhead = arguments.cipher ? tagBytes : 0;
    std::vector<unsigned char> buffer = makeBuffer();
    unsigned char* const data = buffer.data() + prefixBytes;
    for (;;) {
        const auto count = static_cast<std::size_t>(checkSystem(read(file.get(), data, chunkBytes), "read"));
        if (count == 0) {
            break;
        }
        if (arguments.cipher) {
            cipher.seal(data, count);
        }
        const std::uint32_t prefix = htonl(static_cast<std::uint32_t>(count + overhead));
        std::memcpy(buffer.data(), &prefix, sizeof prefix);
        sendAll(connection, buffer.data(), prefixBytes + count + overhead);
    }
    checkSystem(shutdown(connection.get(), SHUT_WR), "shutdown");
    readExact(connection, data, 1); // until the other side has closed
}

Descriptor acceptOne() {
    const Descriptor listener = listenOnLoopback(1);
    return acceptFrom(listener);
}

void receiveFile(const Arguments& arguments) {
    const Descriptor connection = acceptOne();
    const Descriptor file(
        checkSystem(open(arguments.file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), "create"));

    Cipher cipher(false);
    const std::size_t overhead = arguments.cipher ? tagBytes : 0;
    std::vector<unsigned char> buffer = makeBuffer();
    std::uint32_t prefix = 0;
    while (readExact(connection, reinterpret_cast<unsigned char*>(&prefix), sizeof prefix)) {
        const std::size_t length = ntohl(prefix);
        if (length < overhead || length > chunkBytes + overhead || !readExact(connection, buffer.data(), length)) {
            throw std::runtime_error("receive: malformed frame");
        }
        if (arguments.cipher) {
            cipher.open(buffer.data(), length - overhead);
        }
        writeAll(file, buffer.data(), length - overhead);
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Arguments arguments = parse({argv + 1, argv + argc});
        if (arguments.processor >= 0) {
            pin(arguments.processor);
        }
        if (arguments.receiving) {
            receiveFile(arguments);
        } else {
            sendFile(arguments);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "loop: %s\n", error.what());
        return 1;
    }
}

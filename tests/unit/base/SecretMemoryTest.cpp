#include "base/SecretMemory.h"

#include "base/SecretBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace orlinth {
namespace {

/// What the kernel notes of the mapping that has this address: "rd wr mr mw me lo ac dd", see proc(5).
std::string flagsOfMappingWith(const std::byte* memory) {
    std::ifstream maps("/proc/self/smaps");
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    bool isOurs = false;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream words(line);
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        if (words >> std::hex >> begin >> dash >> end && dash == '-') {
            isOurs = begin <= address && address < end;
        } else if (isOurs && line.starts_with("VmFlags:")) {
            return line + ' ';
        }
    }
    return "";
}

bool has(const std::string& flags, const std::string& flag) {
    return flags.find(' ' + flag + ' ') != std::string::npos;
}

/// Under a sanitizer locking does nothing, and without the right to it nothing is to be seen.
bool canLock() {
    constexpr std::size_t size = 65536;
    void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const bool isLocked = ::mlock(pages, size) == 0 && has(flagsOfMappingWith(static_cast<std::byte*>(pages)), "lo");
    ::munmap(pages, size);
    return isLocked;
}

constexpr std::size_t someSizes[] = {1, 31, 32, 64, 65, 200, 1024, 2048, 2049, 5000, 70000};

TEST(SecretMemory, IsNeitherSwappedOutNorDumped) {
    const bool locks = canLock();
    for (const std::size_t size : someSizes) {
        const SecretBytes secret(size);
        const std::string flags = flagsOfMappingWith(secret.reveal().data());
        EXPECT_TRUE(has(flags, "dd")) << size << ": " << flags;
        EXPECT_EQ(has(flags, "lo"), locks) << size << ": " << flags;
    }
}

TEST(SecretMemory, IsZerosAgainAfterwards) {
    for (const std::size_t size : someSizes) {
        for (int round = 0; round < 3; ++round) {
            std::byte* const memory = SecretMemory::take(size);
            EXPECT_TRUE(std::all_of(memory, memory + size, [](std::byte byte) { return byte == std::byte{0}; }))
                << size;
            std::fill_n(memory, size, std::byte{0xA5});
            SecretMemory::giveBack(memory, size);
        }
    }
}

TEST(SecretMemory, GivesNobodyWhatAnotherOneHas) {
    std::vector<SecretBytes> secrets;
    for (std::size_t i = 0; i < 5000; ++i) {
        secrets.emplace_back(i % 300 + 1);
        std::ranges::fill(secrets.back().revealMutable(), static_cast<std::byte>(i));
        if (i % 3 == 0) {
            secrets[i / 2] = SecretBytes();
        }
    }
    for (std::size_t i = 0; i < secrets.size(); ++i) {
        EXPECT_TRUE(std::ranges::all_of(secrets[i].reveal(), [i](std::byte byte) {
            return byte == static_cast<std::byte>(i);
        })) << i;
    }
}

TEST(SecretMemory, IsTakenAgainByTheNextOne) {
    std::set<const std::byte*> places;
    for (int i = 0; i < 100000; ++i) {
        places.insert(SecretBytes(32).reveal().data());
    }
    EXPECT_LE(places.size(), 2U);
}

TEST(SecretMemory, IsSharedByThreads) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([number] {
            for (int i = 0; i < 10000; ++i) {
                SecretBytes one(40);
                const SecretBytes other(static_cast<std::size_t>(i % 500));
                std::ranges::fill(one.revealMutable(), static_cast<std::byte>(number));
                ASSERT_TRUE(std::ranges::all_of(
                    one.reveal(), [number](std::byte byte) { return byte == static_cast<std::byte>(number); }));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(SecretMemory, IsThereAlsoIfTheSystemLocksNothing) {
    const pid_t process = ::fork();
    if (process == 0) {
        const rlimit nothing{0, 0};
        if (::setrlimit(RLIMIT_MEMLOCK, &nothing) != 0 || (::geteuid() == 0 && ::setuid(65534) != 0)) {
            ::_exit(77); // who may do everything may lock as well
        }
        std::vector<SecretBytes> secrets;
        for (std::size_t i = 0; i < 2000; ++i) {
            secrets.emplace_back(i * 3 + 1);
            std::ranges::fill(secrets.back().revealMutable(), std::byte{1});
        }
        ::_exit(canLock() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, 0), process);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "this system lets nobody give up their rights";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SecretMemory, NothingTakesNothing) {
    EXPECT_EQ(SecretMemory::take(0), nullptr);
    SecretMemory::giveBack(nullptr, 0);
}

} // namespace
} // namespace orlinth

#pragma once

#include "fakes/MemoryFileSystem.h"

#include <gtest/gtest.h>

namespace orlinth::fakes {

/// What the check after a crash is told.
struct Aftermath {
    MemoryFileSystem& files; ///< as the next run finds it
    CrashKind kind;
    bool completed; ///< no crash in the scenario: it happened right behind it
};

/// Runs `scenario` again and again on what `prepare` set up, cut after its first, second, ... change to the disk (also
/// in the middle of a write), until it runs through; after each run calls `check` with what each kind of crash leaves.
template <typename Prepare, typename Scenario, typename Check>
void forEveryCrash(const Prepare& prepare, const Scenario& scenario, const Check& check) {
    for (const std::size_t tornBytes : {std::size_t{0}, std::size_t{5}}) {
        bool completed = false;
        for (std::size_t mutations = 0; !completed; ++mutations) {
            MemoryFileSystem files;
            prepare(files);
            files.crashAfter(mutations, tornBytes);
            try {
                scenario(files);
            } catch (const std::exception& error) {
                ASSERT_TRUE(files.hasCrashed()) << "failed without a crash: " << error.what();
            }
            completed = !files.hasCrashed();
            for (const CrashKind kind : allCrashKinds) {
                SCOPED_TRACE(testing::Message() << "cut after " << mutations << " changes, crash of kind "
                                                << static_cast<int>(kind) << ", " << tornBytes << " bytes torn");
                const std::unique_ptr<MemoryFileSystem> next = files.afterCrash(kind);
                check(Aftermath{*next, kind, completed});
            }
            ASSERT_FALSE(completed && mutations == 0) << "the scenario changes nothing";
        }
    }
}

/// Runs `scenario` again and again on what `prepare` set up, with its first, second, ... change to the disk failing
/// with `errorNumber`, until none is left to fail; after each run that had a failure calls `check` with the files,
/// healthy again, and the exception, null if the scenario swallowed the failure.
template <typename Prepare, typename Scenario, typename Check>
void forEveryFailure(int errorNumber, const Prepare& prepare, const Scenario& scenario, const Check& check) {
    for (std::size_t skip = 0;; ++skip) {
        MemoryFileSystem files;
        prepare(files);
        const std::size_t before = files.mutations();
        files.addFault({.errorNumber = errorNumber, .skip = skip, .times = 1, .writtenBytes = 3});
        std::exception_ptr thrown;
        try {
            scenario(files);
        } catch (...) {
            thrown = std::current_exception();
        }
        if (files.mutations() - before <= skip) {
            ASSERT_GT(skip, 0U) << "the scenario changes nothing";
            return;
        }
        files.clearFaults();
        SCOPED_TRACE(testing::Message() << "change number " << skip + 1 << " failed: "
                                        << (files.history().empty() ? "" : "after " + files.history().back()));
        check(files, thrown);
    }
}

} // namespace orlinth::fakes

#pragma once

#include "OrlinthCore/Share/ShareOutbox.h"
#include "base/CaseError.h"
#include "base/Mutex.h"
#include "platform/Clock.h"
#include "platform/Log.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// Why a batch could not be staged. The texts are for the user.
class ShareError : public CaseError<ShareError> {
public:
    enum class Case { nothingShareable, containerUnavailable, batchNotCreated, nothingRead, manifestNotWritten };

    /// "Nothing shareable — Orlinth sends files only"
    [[nodiscard]] static ShareError nothingShareable();
    /// "App Group container unavailable — check entitlement"
    [[nodiscard]] static ShareError containerUnavailable();
    /// "Could not create outbox batch: " + text
    [[nodiscard]] static ShareError batchNotCreated(const std::string& text);
    /// "Could not read the shared file(s)"
    [[nodiscard]] static ShareError nothingRead();
    /// "Could not write manifest: " + text
    [[nodiscard]] static ShareError manifestNotWritten(const std::string& text);

private:
    ShareError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

/// One batch on its way into the outbox: its folder, then the copies, then the manifest, then the signal.
///
/// Until finish() has returned there is no batch: destroying this removes the folder with what was copied, and a
/// process that is killed leaves a folder without a manifest, which the host ignores and clears away. So that it can
/// tell such a folder from one that is still being filled, the folder is held locked (an advisory lock, on the folder
/// itself) until finish() rings, or this ends.
///
/// Threading: add() from any number of threads at once, the rest when none of those runs.
class ShareStaging {
public:
    static constexpr const char* logSubsystem = "com.tarvinex.orlinth.share";

    /// What a batch is staged with; all of it outlives the batch.
    struct System {
        platform::FileSystem& files;
        platform::Clock& clock;
        platform::Log& log;
        platform::BusSignals& busSignals;
    };

    /// Makes the batch's folder (and the outbox), for the user only. @throws ShareError
    ShareStaging(System system, const ShareOutbox& outbox);
    ~ShareStaging();
    ShareStaging(const ShareStaging&) = delete;
    ShareStaging& operator=(const ShareStaging&) = delete;

    [[nodiscard]] const std::string& id() const noexcept { return id_; }
    [[nodiscard]] const platform::Path& folder() const noexcept { return folder_; }

    /// Copies a file into the folder, under its own name or the next free one, shortened to 255 bytes. A file that
    /// cannot be read, a folder, or a special file is skipped, which is logged. Returns whether it was copied.
    bool add(const platform::Path& file) noexcept;
    /// Why the file that was skipped last was skipped, in the system's words; "" if none was.
    [[nodiscard]] std::string lastProblem() const;
    /// Writes the manifest and rings. Returns it. Once. @throws ShareError; then the folder is gone, and the host has
    /// seen no batch
    ShareOutbox::Manifest finish(std::optional<std::vector<PeerKey>> targetPubkeys);

    /// The first of "name.ext", "name 2.ext", "name 3.ext", … that is not taken in the folder. "manifest.json" is.
    [[nodiscard]] static platform::Path uniqueDestination(const platform::FileSystem& files,
                                                          const platform::Path& folder,
                                                          const std::string& preferredName);

private:
    [[nodiscard]] std::vector<std::string> copiedNames() const;
    void flushManifest();
    void discard() noexcept;

    System system_;
    std::string id_;
    platform::Path folder_;
    std::unique_ptr<platform::File> hold_; ///< the locked folder
    bool isFinished_ = false;
    mutable Mutex lock_;
    std::vector<std::string> names_ ORLINTH_GUARDED_BY(lock_); ///< in the order in which the copies finished
    std::string lastProblem_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth

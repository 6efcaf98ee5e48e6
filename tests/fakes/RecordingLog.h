#pragma once

#include "platform/Log.h"

#include <mutex>
#include <string>
#include <vector>

namespace orlinth::fakes {

/// A log that keeps what is written to it. Any thread.
class RecordingLog : public platform::Log {
public:
    ~RecordingLog() override;
    struct Line {
        platform::LogLevel level;
        std::string subsystem;
        std::string category;
        std::string message;
        bool operator==(const Line&) const = default;
    };

    void write(platform::LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override {
        const std::lock_guard guard(lock_);
        lines_.push_back({level, std::string(subsystem), std::string(category), std::string(message)});
    }

    [[nodiscard]] std::vector<Line> lines() const {
        const std::lock_guard guard(lock_);
        return lines_;
    }
    [[nodiscard]] std::vector<std::string> messages() const {
        std::vector<std::string> texts;
        for (const Line& line : lines()) {
            texts.push_back(line.message);
        }
        return texts;
    }

private:
    mutable std::mutex lock_;
    std::vector<Line> lines_;
};

} // namespace orlinth::fakes

#pragma once

#include "OrlinthHost/Service/Doctor.h"
#include "orlinth/Reporting/Output.h"

#include <string>

namespace orlinth::cli {

/// Turns what the doctor finds into lines of at most 80 columns, and into events.
///
///     ✓ This computer   192.168.7.10 on wlan0
///     ✗ Pixel-8         on this network, but Orlinth is not open on it
///                       Open the app there once …
///
/// What is wrong is told by the mark and the words, never by colour alone.
class DoctorReporter : public host::DoctorEvents {
public:
    struct Style {
        bool isUtf8 = false;    ///< of the terminal; else the marks are ok, !, x and -
        bool hasColour = false; ///< for the marks
        bool isVerbose = false; ///< what was seen goes behind each finding
    };
    /// What standard output takes.
    [[nodiscard]] static Style styleOfTerminal();

    /// `output` outlives this.
    DoctorReporter(Output& output, Style style) : output_(output), style_(style) {}

    void found(const host::Finding& finding) override;
    void listening(Seconds time) override;
    void concluded(const host::Diagnosis& diagnosis) override;
    void hung() override {}

private:
    void showItem(host::Finding::Status status, const std::string& label, const std::string& text,
                  const host::Advice& advice, const std::string& evidence);
    /// One column in UTF-8, else two.
    [[nodiscard]] std::string mark(host::Finding::Status status) const;

    Output& output_;
    Style style_;
};

} // namespace orlinth::cli

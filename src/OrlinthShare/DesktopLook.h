#pragma once

#include <QString>
#include <QThread>
#include <memory>
#include <optional>

namespace orlinth::share {

enum class ColorScheme { light, dark };

/// What "light" and "dark" mean, nothing for other texts.
[[nodiscard]] std::optional<ColorScheme> colorSchemeNamed(const QString& name);

/// Whether the desktop is set to light or dark, as its settings portal tells (org.freedesktop.appearance,
/// color-scheme). Nothing if it has no preference, there is no portal, or none that answers within a quarter of a
/// second. A bus that takes the connection and never says a word is waited for without end. Any thread.
[[nodiscard]] std::optional<ColorScheme> portalColorScheme();

/// Whether Qt itself takes over the desktop's colours, so that the application's palette is right as it is.
[[nodiscard]] bool bringsItsPalette();

/// Gives the application the colours of the desktop, or those asked for. To be called once there is a QApplication.
/// Returns the thread that still waits for the session's bus, if that has not answered within a second: a process with
/// such a thread can only end without destructors. Else null.
[[nodiscard]] std::unique_ptr<QThread> applyDesktopLook(std::optional<ColorScheme> wanted);

} // namespace orlinth::share

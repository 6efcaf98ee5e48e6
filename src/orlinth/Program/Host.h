#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Settings/SettingSources.h"
#include "orlinth/Program/TaskRunner.h"
#include "orlinth/Reporting/Output.h"

namespace orlinth::cli {

/// What a command works with: the home, whose executor is that of the tasks, and what makes it a program. Everything
/// referred to outlives the command.
struct Host : host::Home {
    Host(platform::System& systemOf, TaskRunner& tasksOf, Output& outputOf)
        : Home{systemOf, tasksOf.executor()}, tasks(tasksOf), output(outputOf) {}

    /// What was said of the settings in config.toml and settings.json.
    host::SettingSources settings = {};
    TaskRunner& tasks;
    Output& output;
};

} // namespace orlinth::cli

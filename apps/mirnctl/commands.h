// The commands. Each add function declares one command's arguments on the parser and, when it was chosen, puts what it
// does into `chosen`.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "apps/mirnctl/context.h"

namespace mirn {

// Runs a command and returns the exit status.
using ChosenCommand = std::function<int(Context&)>;

void addDevicesCommand(CLI::App& app, ChosenCommand& chosen);
void addDoctorCommand(CLI::App& app, ChosenCommand& chosen);
void addInfoCommand(CLI::App& app, ChosenCommand& chosen);
void addSetNameCommand(CLI::App& app, ChosenCommand& chosen);
void addLedCommand(CLI::App& app, ChosenCommand& chosen);
void addKeyCommand(CLI::App& app, ChosenCommand& chosen);
void addTypeCommand(CLI::App& app, ChosenCommand& chosen);
void addMouseCommand(CLI::App& app, ChosenCommand& chosen);
void addSnapshotCommand(CLI::App& app, ChosenCommand& chosen);
void addQualityCommand(CLI::App& app, ChosenCommand& chosen);
void addColorCommand(CLI::App& app, ChosenCommand& chosen);
void addWatchCommand(CLI::App& app, ChosenCommand& chosen);
void addUpgradeCommand(CLI::App& app, ChosenCommand& chosen);
void addLatencyCommand(CLI::App& app, ChosenCommand& chosen);
void addChannelCommand(CLI::App& app, ChosenCommand& chosen);

}  // namespace mirn

// What the commands of kvlab share.
#pragma once

#include <span>
#include <string>

#include "commandline/program.h"
#include "lab/store/store.h"

namespace kv::lab {

using commandline::Command;
using commandline::Given;
using commandline::Has;
using commandline::Item;
using commandline::NeededValue;
using commandline::NotFoundError;
using commandline::Number;
using commandline::Option;
using commandline::Times;
using commandline::UsageError;
using commandline::Value;
using commandline::Values;
using commandline::Word;

inline constexpr Option databaseOption{
    "--database", "FILE", "the database of a server, which may be running: a file, or postgresql://...", Times::once};

/// Opens the database that databaseOption names. NotFoundError when there is no such file.
Store OpenExisting(const Given& given);

/// What is given for an option or a word, as the database holds texts: what is not UTF-8 stands as U+FFFD.
std::string StoredValue(const Given& given, const char* name);

/// NotFoundError when a file does not exist.
void RequireFile(const std::string& path);

/// The bytes of a plan's file. NotFoundError when it does not exist, std::runtime_error when it cannot be read.
std::string ReadPlanFile(const std::string& path);

/// Throws std::runtime_error when standard output cannot be written.
void PrintLine(const std::string& line);

/// Says something on standard error that is not a failure.
void PrintNote(const std::string& note);

/// The commands by topic, in the order of the help.
std::span<const Command> ServerCommands();         // serve, agents, prune
std::span<const Command> RecordCommands();         // records
std::span<const Command> PlotCommands();           // plot
std::span<const Command> RequestCommands();        // request
std::span<const Command> ConfigurationCommands();  // conf
std::span<const Command> FaultCommands();          // fault
std::span<const Command> FleetCommands();          // fleet

}  // namespace kv::lab

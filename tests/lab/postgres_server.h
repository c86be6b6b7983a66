// A PostgreSQL server of its own for the tests of one program.
#pragma once

#include <string>

namespace kv::lab::test {

/// A place for --database in which nothing is stored yet: a schema of a server that the first call starts, and that
/// ends with the program. Throws std::runtime_error with what the server printed when it does not start.
std::string NewPostgresPlace();

}  // namespace kv::lab::test

#include "tests/lab/postgres_server.h"

#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

#include "lab/store/database.h"
#include "tests/support/linux/child_program.h"

namespace kv::lab::test {

namespace {

/// Debian installs one folder for each version. The server refuses to run as root, and what it writes need not survive.
constexpr const char* commandLine =
    "{} sh -c 'PATH=$(echo /usr/lib/postgresql/*/bin):$PATH && "
    "initdb -D data -U postgres --auth=trust --no-sync --encoding=UTF8 --locale=C && "
    "exec postgres -D data -k \"$PWD\" -c listen_addresses= -c fsync=off -c shared_buffers=16MB'";

class PostgresServer {
  public:
    PostgresServer() {
        std::filesystem::permissions(program_.folder(), std::filesystem::perms::all);
        const char* const user = geteuid() == 0 ? "--reuid postgres --regid postgres --clear-groups" : "";
        program_.Start(fmt::format(fmt::runtime(commandLine), user), [this] {
            try {
                OpenDatabase(Place("public"), Opening::existing);
                return true;
            } catch (const DatabaseError&) {
                return false;
            }
        });
    }

    std::string NewPlace() {
        const std::string schema = "lab" + std::to_string(++schemas_);
        OpenDatabase(Place("public"), Opening::existing)->RunScript("CREATE SCHEMA " + schema);
        return Place(schema);
    }

  private:
    std::string Place(const std::string& schema) const {
        return fmt::format("postgresql:///postgres?user=postgres&host={}&options=-csearch_path%3D{}",
                           program_.folder().string(), schema);
    }

    kv::test::ChildProgram program_;
    int schemas_ = 0;
};

}  // namespace

std::string NewPostgresPlace() {
    static PostgresServer server;
    return server.NewPlace();
}

}  // namespace kv::lab::test

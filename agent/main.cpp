#include "agent/entry.h"
#include "platform/backend.h"

int main(int argc, char** argv) {
    platform::InstallBackend();
    return kv::Main(argc, argv);
}

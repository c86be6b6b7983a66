#include "agent/entry.h"

int main(int argc, char** argv) { return kv::Main(argc, argv); }

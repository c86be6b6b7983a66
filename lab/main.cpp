#include "lab/cli.h"

int main(int count, char** arguments) { return kv::lab::RunCommandLine(count, arguments); }

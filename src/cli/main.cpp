#include "cli/command.h"

int main(int count, char** arguments) { return zr::cli::Main(count, arguments); }

// morven: the command-line tool of the Morven library.
//
//   morven transfer SOURCE REFERENCE -o OUTPUT       one picture
//   morven transfer --reference REF -o FOLDER INPUT... many, in parallel
//   morven equalize | stretch | contrast | smooth | info ...
//
// Each command lives in commands/<name>.cpp and the command line is parsed
// in commands/cli.cpp; every picture goes through run/pipeline.cpp (read,
// process, write), alone or in a batch.
//
// Exit statuses: 0 done, 1 a file could not be read, processed or written,
// 2 a wrong command line, 130 interrupted by Ctrl-C.
#include "commands/command.hpp"
#include "io/files.hpp"
#include "io/metadata.hpp"

int main(int argc, char **argv) {
    using namespace morven::tool;
    installSignalHandlers();
    initFileCreationMask();
    initMetadata();
    return runCommandLine(argc, argv,
                          {transferCommand(), equalizeCommand(), stretchCommand(),
                           contrastCommand(), smoothCommand(), infoCommand()});
}

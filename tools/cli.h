// Shared pieces of the tarn command-line tool: exit codes, option parsing,
// messages and file helpers. The tool uses only the library's public API.
#ifndef TARN_TOOLS_CLI_H
#define TARN_TOOLS_CLI_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace tarn_cli {

// Exit codes, documented in the README and in `tarn --help`.
enum ExitCode {
  kExitOk = 0,       // everything asked for was done
  kExitFailed = 1,   // a file could not be read, parsed or written
  kExitUsage = 2,    // bad command line
};

// A parsed command line: options with their values, in order, and the
// remaining operands.
struct Option {
  std::string name;   // "--tile", "-o"
  std::string value;  // empty for flags
};

struct CommandLine {
  std::vector<Option> options;
  std::vector<std::string> operands;

  bool has(const char *name) const;
  // The last value given for name, or fallback.
  std::string value(const char *name, const std::string &fallback = "") const;
  std::vector<std::string> values(const char *name) const;
};

// Option table entry: its name(s) and whether it takes a value.
struct OptionSpec {
  const char *name;
  const char *alias;  // or nullptr
  bool takes_value;
};

// Parses argv[first..argc) against specs; prints a message naming the
// command and returns false on an unknown option or a missing value.
bool parse_command_line(const char *command, int argc, char **argv, int first, const OptionSpec *specs,
                        size_t spec_count, CommandLine *out);

// Parses a non-negative integer (decimal); false on junk or overflow.
bool parse_uint(const std::string &text, uint32_t *out);

// "tarn: <command>: <message>" on stderr.
void error(const char *command, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// Whole file into memory; false (and errno-based message) on failure.
bool read_whole_file(const std::string &path, std::vector<uint8_t> *out, std::string *why);
// Writes bytes to path, or to stdout when path is "-".
bool write_whole_file(const std::string &path, const uint8_t *data, size_t size, std::string *why);

// Turns on the library's log lines on stderr (the -v option).
void enable_library_log();

// Subcommands: each returns an ExitCode.
int cmd_info(int argc, char **argv);
int cmd_extract(int argc, char **argv);
int cmd_exif(int argc, char **argv);
int cmd_xmp(int argc, char **argv);
int cmd_mux(int argc, char **argv);
int cmd_boxes(int argc, char **argv);
int cmd_edit(int argc, char **argv);

}  // namespace tarn_cli

#endif  // TARN_TOOLS_CLI_H

#include "cli.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "tarn/log.h"

namespace tarn_cli {

bool CommandLine::has(const char *name) const {
  for (const auto &o : options)
    if (o.name == name) return true;
  return false;
}

std::string CommandLine::value(const char *name, const std::string &fallback) const {
  std::string result = fallback;
  for (const auto &o : options)
    if (o.name == name) result = o.value;
  return result;
}

std::vector<std::string> CommandLine::values(const char *name) const {
  std::vector<std::string> result;
  for (const auto &o : options)
    if (o.name == name) result.push_back(o.value);
  return result;
}

bool parse_command_line(const char *command, int argc, char **argv, int first, const OptionSpec *specs,
                        size_t spec_count, CommandLine *out) {
  bool options_done = false;
  for (int i = first; i < argc; ++i) {
    std::string arg = argv[i];
    if (options_done || arg.size() < 2 || arg[0] != '-') {
      out->operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    std::string inline_value;
    bool has_inline = false;
    const size_t eq = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      inline_value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      has_inline = true;
    }
    const OptionSpec *spec = nullptr;
    for (size_t s = 0; s < spec_count; ++s) {
      if (arg == specs[s].name || (specs[s].alias != nullptr && arg == specs[s].alias)) spec = &specs[s];
    }
    if (spec == nullptr) {
      error(command, "unknown option '%s' (see tarn %s --help)", arg.c_str(), command);
      return false;
    }
    Option option{spec->name, ""};
    if (spec->takes_value) {
      if (has_inline) {
        option.value = inline_value;
      } else if (i + 1 < argc) {
        option.value = argv[++i];
      } else {
        error(command, "option '%s' needs a value", arg.c_str());
        return false;
      }
    } else if (has_inline) {
      error(command, "option '%s' takes no value", arg.c_str());
      return false;
    }
    out->options.push_back(option);
  }
  return true;
}

bool parse_uint(const std::string &text, uint32_t *out) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > UINT32_MAX) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

void error(const char *command, const char *format, ...) {
  std::fprintf(stderr, "tarn: %s: ", command);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
}

bool read_whole_file(const std::string &path, std::vector<uint8_t> *out, std::string *why) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *why = std::strerror(errno);
    return false;
  }
  out->clear();
  uint8_t chunk[1 << 16];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + got);
  const bool ok = std::ferror(f) == 0;
  if (!ok) *why = "read error";
  std::fclose(f);
  return ok;
}

bool write_whole_file(const std::string &path, const uint8_t *data, size_t size, std::string *why) {
  const bool to_stdout = path == "-";
  FILE *f = to_stdout ? stdout : std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    *why = std::strerror(errno);
    return false;
  }
  bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
  if (to_stdout) {
    ok = std::fflush(f) == 0 && ok;
  } else {
    ok = std::fclose(f) == 0 && ok;
  }
  if (!ok) *why = std::strerror(errno);
  return ok;
}

namespace {

void stderr_sink(int priority, const char *tag, const char *message, void *) {
  static const char kLevels[] = "??VDIWEF";
  const char level = (priority >= 0 && priority < 8) ? kLevels[priority] : '?';
  std::fprintf(stderr, "%c %s: %s\n", level, tag, message);
}

}  // namespace

void enable_library_log() { tarn_log_set_sink(stderr_sink, nullptr); }

}  // namespace tarn_cli

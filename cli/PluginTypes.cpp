#include "cli/PluginTypes.h"

#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

namespace Cli {
namespace {

constexpr std::string_view kSectionName = ".kiv.type";

/// An ELF file, open for reading.
class ElfFile {
 public:
  explicit ElfFile(const std::string& name) : name_(name) {
    ::elf_version(EV_CURRENT);
    if (name == "-") {
      readStandardInput();
      elf_.reset(::elf_memory(bytes_.data(), bytes_.size()));
    } else {
      std::error_code error;
      const auto status = std::filesystem::status(name, error);
      if (error) refuse(error.message());
      // Opening a FIFO could block without end.
      if (is_directory(status)) refuse("is a directory");
      if (!is_regular_file(status)) refuse("not a regular file");
      file_.reset(std::fopen(name.c_str(), "rbe"));
      if (!file_) refuse(std::strerror(errno));
      elf_.reset(::elf_begin(::fileno(file_.get()), ELF_C_READ, nullptr));
    }
    if (::elf_kind(elf_.get()) != ELF_K_ELF) refuse("not an ELF file");
  }

  /// The bytes of the first section with this name. They are valid while the file is open.
  std::string_view section(std::string_view name) const {
    GElf_Ehdr header;
    size_t sections = 0;
    size_t names = 0;
    require(::gelf_getehdr(elf_.get(), &header) != nullptr &&
            ::elf_getshdrnum(elf_.get(), &sections) == 0 &&
            (sections != 0) == (header.e_shoff != 0) &&
            ::elf_getshdrstrndx(elf_.get(), &names) == 0);
    for (size_t index = 1; index < sections; ++index) {
      Elf_Scn* const found = ::elf_getscn(elf_.get(), index);
      GElf_Shdr about;
      require(found != nullptr && ::gelf_getshdr(found, &about) != nullptr);
      const char* const itsName = ::elf_strptr(elf_.get(), names, about.sh_name);
      require(itsName != nullptr);
      if (itsName != name) continue;
      const Elf_Data* const data = ::elf_rawdata(found, nullptr);
      require(data != nullptr && (data->d_buf != nullptr || data->d_size == 0));
      return {static_cast<const char*>(data->d_buf), data->d_size};
    }
    refuse("no plug-in: it has no section " + std::string(name));
  }

  [[noreturn]] void refuse(const std::string& reason) const {
    throw PluginError(name_ + ": error: " + reason);
  }

 private:
  struct End {
    void operator()(std::FILE* file) const { std::fclose(file); }
    void operator()(Elf* elf) const { ::elf_end(elf); }
  };

  void readStandardInput() {
    constexpr size_t kMaxBytes = size_t{1} << 30;
    char piece[1 << 16];
    while (const size_t size = std::fread(piece, 1, sizeof piece, stdin)) {
      bytes_.append(piece, size);
      if (bytes_.size() > kMaxBytes) refuse("larger than a plug-in");
    }
    if (std::ferror(stdin) != 0) refuse("cannot be read");
  }

  void require(bool isSound) const {
    if (isSound) return;
    const int error = ::elf_errno();
    refuse("damaged" + (error == 0 ? "" : ": " + std::string(::elf_errmsg(error))));
  }

  const std::string name_;
  std::string bytes_;  // of standard input
  std::unique_ptr<std::FILE, End> file_;
  std::unique_ptr<Elf, End> elf_;
};

}  // namespace

std::vector<std::string> pluginTypes(const std::string& file) {
  const ElfFile elf(file);
  std::string_view rest = elf.section(kSectionName);
  std::vector<std::string> types;
  while (!rest.empty()) {
    const auto length = rest.find('\0');
    if (length == rest.npos) elf.refuse("damaged: the last type name does not end");
    const auto name = rest.substr(0, length);
    // The names may be printed on a terminal.
    if (!std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; })) {
      elf.refuse("damaged: type name " + std::to_string(types.size() + 1) + " is not one");
    }
    rest.remove_prefix(length + 1);
    if (!name.empty()) types.emplace_back(name);  // between pieces there may be padding
  }
  return types;
}

}  // namespace Cli

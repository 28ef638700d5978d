#include "core/program_dir.h"

#include <system_error>

namespace qx {

ProgramDir::ProgramDir(std::filesystem::path home) : home_(std::move(home)) {}

const std::vector<std::string>& ProgramDir::TreeFolders() {
  static const std::vector<std::string> kFolders = {
      "cfg",        "log",         "log/conn",   "dx",          "debug",      "badspots",
      "badspotsIP", "badspotsTor", "badinfo",    "badspotters", "badnodes",   "busted",
      "busted/cw",  "busted/rtty", "busted/psk", "busted/ft4",  "busted/ft8", "busted/unknown",
      "wwv",        "wcy",         "ann",        "pc9x",        "user",       "userRemote",
      "msg",        "files",       "downloads",  "unzipped"};
  return kFolders;
}

bool ProgramDir::CreateTree(std::string* error) const {
  for (const std::string& sub : TreeFolders()) {
    std::error_code ec;
    std::filesystem::create_directories(Data(sub), ec);
    if (ec) {
      if (error) *error = Data(sub).string() + ": " + ec.message();
      return false;
    }
  }
  return true;
}

}  // namespace qx

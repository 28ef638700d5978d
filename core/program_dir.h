// The program directory (--home): cluster.cfg and its backup at the root, all state under
// data/.  Every path the node uses is built here so that the layout has one description.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

class ProgramDir {
 public:
  explicit ProgramDir(std::filesystem::path home);

  const std::filesystem::path& home() const { return home_; }
  std::filesystem::path ConfigFile() const { return home_ / "cluster.cfg"; }
  std::filesystem::path ConfigBackup() const { return home_ / "cluster.cfg.bak"; }
  std::filesystem::path Data() const { return home_ / "data"; }
  // data/<sub>, for example Data("cfg") or Data("busted/cw").
  std::filesystem::path Data(std::string_view sub) const { return Data() / sub; }

  // Creates every folder of the data tree that is missing.  False (with a reason) when a
  // folder cannot be made.
  bool CreateTree(std::string* error) const;

  // The data tree's folders, relative to data/.
  static const std::vector<std::string>& TreeFolders();

 private:
  std::filesystem::path home_;
};

}  // namespace qx

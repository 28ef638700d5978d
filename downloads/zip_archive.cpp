#include "downloads/zip_archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>

#include "downloads/download_plan.h"

namespace qx {

bool LooksLikeZip(std::string_view data) {
  return data.starts_with(std::string_view("PK\x03\x04", 4)) ||
         data.starts_with(std::string_view("PK\x05\x06", 4));
}

UnpackResult UnpackZip(std::string_view data, size_t max_total_bytes) {
  UnpackResult r;
  std::unique_ptr<archive, decltype(&archive_read_free)> a(archive_read_new(), archive_read_free);
  if (!a) {
    r.error = "cannot read archives (out of memory)";
    return r;
  }
  archive_read_support_format_zip(a.get());
  if (archive_read_open_memory(a.get(), data.data(), data.size()) != ARCHIVE_OK) {
    r.error = std::string("not a zip archive: ") + archive_error_string(a.get());
    return r;
  }
  size_t total = 0;
  archive_entry* entry = nullptr;
  for (;;) {
    const int status = archive_read_next_header(a.get(), &entry);
    if (status == ARCHIVE_EOF) break;
    if (status < ARCHIVE_WARN) {
      r.error = std::string("damaged archive: ") + archive_error_string(a.get());
      return r;
    }
    const char* raw_name = archive_entry_pathname(entry);
    std::string_view path = raw_name ? raw_name : "";
    if (archive_entry_filetype(entry) != AE_IFREG) continue;  // folders, links
    const std::string_view name = path.substr(path.rfind('/') + 1);
    if (!SafeFileName(name)) {
      r.skipped.push_back(std::string(path) + ": not a plain file name");
      continue;
    }
    ArchiveMember m;
    m.name = std::string(name);
    char buffer[64 * 1024];
    for (;;) {
      const la_ssize_t n = archive_read_data(a.get(), buffer, sizeof buffer);
      if (n == 0) break;
      if (n < 0) {
        r.error = m.name + ": " + archive_error_string(a.get());
        return r;
      }
      total += size_t(n);
      if (total > max_total_bytes) {
        r.error = "the archive unpacks to more than " + std::to_string(max_total_bytes) + " bytes";
        return r;
      }
      m.data.append(buffer, size_t(n));
    }
    r.members.push_back(std::move(m));
  }
  return r;
}

}  // namespace qx

#include "downloads/download_manager.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "downloads/update_check.h"
#include "spots/country.h"
#include "spots/reference_check.h"
#include "tests/testlib/http_server.h"
#include "tests/testlib/test_util.h"

namespace qx {
namespace {

namespace asio = boost::asio;

using testing::HttpTestServer;
using testing::ServedFile;

std::string CountryFile(int countries) {
  std::string text = "# test country file\n";
  for (int i = 0; i < countries; ++i) {
    const std::string prefix = "Q" + std::string(1, char('A' + i % 26)) + std::to_string(i / 26);
    text += "Country " + std::to_string(i) +
            ":  14:  28:  EU:   51.00:   -10.00:    -1.0:  " + prefix + ":\n    " + prefix + "," +
            prefix + "A;\n";
  }
  return text;
}

std::string Zip(const std::map<std::string, std::string>& members) {
  std::string out(1 << 20, '\0');
  size_t used = 0;
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  archive_write_open_memory(a, out.data(), out.size(), &used);
  for (const auto& [name, data] : members) {
    archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, name.c_str());
    archive_entry_set_filetype(e, AE_IFREG);
    archive_entry_set_perm(e, 0644);
    archive_entry_set_size(e, la_int64_t(data.size()));
    archive_write_header(a, e);
    archive_write_data(a, data.data(), data.size());
    archive_entry_free(e);
  }
  archive_write_close(a);
  archive_write_free(a);
  out.resize(used);
  return out;
}

class DownloadManagerTest : public ::testing::Test {
 protected:
  DownloadManagerTest() {
    for (const char* d : {"downloads", "unzipped", "files"}) {
      std::filesystem::create_directories(dir_ / d);
    }
    options_.downloads_dir = dir_ / "downloads";
    options_.unzipped_dir = dir_ / "unzipped";
    options_.files_dir = dir_ / "files";
    options_.timeout = std::chrono::seconds(5);
    Make();
  }

  void Make() {
    manager_.reset();
    manager_ = std::make_unique<DownloadManager>(
        io_, clock_, options_, [this](std::string_view t) { log_.emplace_back(t); });
    manager_->SetSources({{"cty_wt_mod.dat", server_.Url("/cty/cty_wt_mod.dat")},
                          {"MASTER.SCP", server_.Url("/scp/master.zip")}});
    manager_->SetCheck("cty_wt_mod.dat", [](std::string_view text, std::shared_ptr<void>* out) {
      auto lookup = std::make_shared<CountryLookup>();
      std::string error = CheckCountryFile(text, 5, lookup.get());
      if (error.empty()) *out = lookup;
      return error;
    });
    manager_->SetCheck("master.scp", [](std::string_view text, std::shared_ptr<void>*) {
      return CheckCallFile(text, nullptr);
    });
    manager_->set_on_installed([this](const InstalledFile& f) { installed_.push_back(f); });
  }

  // Asks for one file (all when empty) and runs the loop until nothing is under way.
  void Fetch(std::string_view file = {}) {
    ASSERT_TRUE(manager_->Request(file));
    RunDue();
  }
  // Starts what is due and runs the loop until nothing is under way.
  void RunDue() {
    manager_->Tick();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (manager_->busy_count() > 0 && std::chrono::steady_clock::now() < end) {
      io_.restart();
      io_.run_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(manager_->busy_count(), 0);
  }

  const DownloadStatus Status(std::string_view file) const {
    for (const DownloadStatus& s : manager_->Status()) {
      if (s.file == file) return s;
    }
    return {};
  }

  std::string Installed(std::string_view file) const {
    return testing::ReadFile(dir_ / "files" / file);
  }

  testing::TempDir dir_;
  asio::io_context io_;
  HttpTestServer server_{io_};
  ManualClock clock_{SysTime{} + std::chrono::hours(24 * 20000)};
  DownloadManagerOptions options_;
  std::unique_ptr<DownloadManager> manager_;
  std::vector<InstalledFile> installed_;
  std::vector<std::string> log_;
};

// A file that moved is fetched from where it went, and the sysop is told the new address.
TEST_F(DownloadManagerTest, AMovedFileIsFetchedAndTheNewAddressLogged) {
  ServedFile moved;
  moved.location = "/new/cty.dat";
  server_.Serve("/cty/cty_wt_mod.dat", moved);
  server_.Serve("/new/cty.dat", {CountryFile(12), "\"v3\""});
  Fetch("cty_wt_mod.dat");
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "installed");
  EXPECT_EQ(Installed("cty_wt_mod.dat"), CountryFile(12));
  EXPECT_NE(std::find(log_.begin(), log_.end(),
                      "Download of cty_wt_mod.dat: " + server_.Url("/cty/cty_wt_mod.dat") +
                          " has moved to " + server_.Url("/new/cty.dat") +
                          "; the address in the settings can be changed to it"),
            log_.end());
}

TEST_F(DownloadManagerTest, NewFileIsInstalledAndHandedOnThenNotModified) {
  testing::WriteFile(dir_ / "files" / "cty_wt_mod.dat", CountryFile(10));
  server_.Serve("/cty/cty_wt_mod.dat", {CountryFile(12), "\"v2\""});
  Fetch("cty_wt_mod.dat");
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "installed");
  EXPECT_EQ(Installed("cty_wt_mod.dat"), CountryFile(12));
  EXPECT_EQ(testing::ReadFile(dir_ / "downloads" / "cty_wt_mod.dat"), CountryFile(12));
  ASSERT_EQ(installed_.size(), 1u);
  // The table the check parsed reaches the node, which need not parse the file again.
  auto lookup = std::static_pointer_cast<CountryLookup>(installed_[0].prepared);
  ASSERT_NE(lookup, nullptr);
  EXPECT_EQ(lookup->country_count(), 12u);

  Fetch("cty_wt_mod.dat");
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "not modified");
  EXPECT_NE(server_.requests().back().find("If-None-Match: \"v2\""), std::string::npos);
  EXPECT_EQ(installed_.size(), 1u);
  ASSERT_TRUE(Status("cty_wt_mod.dat").next.has_value());
  EXPECT_EQ(*Status("cty_wt_mod.dat").next, clock_.Now() + std::chrono::hours(24));

  // A restart remembers the success and the validator: nothing is due for a day (the
  // never-fetched MASTER.SCP is, at once).
  auto asked = [&] {
    const std::vector<std::string> requests = server_.requests();
    return std::count_if(requests.begin(), requests.end(),
                         [](const std::string& r) { return r.starts_with("GET /cty/"); });
  };
  const auto before = asked();
  Make();
  RunDue();
  EXPECT_EQ(asked(), before);
  EXPECT_EQ(Status("MASTER.SCP").outcome, "failed: the server answered 404");
  Fetch("cty_wt_mod.dat");
  EXPECT_EQ(asked(), before + 1);
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "not modified");
}

TEST_F(DownloadManagerTest, TruncatedGarbageAndMissingFilesNeverReplaceTheOneInUse) {
  const std::string good = CountryFile(12);
  testing::WriteFile(dir_ / "files" / "cty_wt_mod.dat", good);
  const std::string newer = CountryFile(13);
  struct Case {
    ServedFile served;
    std::string outcome;
  };
  const std::vector<Case> cases = {
      // The connection ends before the promised length.
      {{newer.substr(0, 900), "", newer.size() - 900}, "failed: reading the answer: partial"},
      // Complete as sent, but cut off at the source.
      {{newer.substr(0, newer.size() / 2)}, "failed: the file has "},
      {{"<html><body>" + std::string(good.size(), ' ') + "Maintenance</body></html>\n"},
       "failed: not a country file"},
      {{""}, "failed: the file is empty"},
  };
  int failures = 0;
  for (const Case& c : cases) {
    server_.Serve("/cty/cty_wt_mod.dat", c.served);
    if (failures == 0) {
      Fetch("cty_wt_mod.dat");
    } else {  // the retries come by themselves, each after a longer wait
      clock_.Set(*Status("cty_wt_mod.dat").next);
      RunDue();
    }
    const DownloadStatus s = Status("cty_wt_mod.dat");
    EXPECT_TRUE(s.outcome.starts_with(c.outcome)) << s.outcome;
    EXPECT_EQ(s.failures, ++failures);
    EXPECT_EQ(*s.next, clock_.Now() + std::chrono::minutes(5 << (failures - 1)));
    EXPECT_EQ(Installed("cty_wt_mod.dat"), good);
  }
  server_.Remove("/cty/cty_wt_mod.dat");
  Fetch("cty_wt_mod.dat");  // the sysop's request starts the run of failures over
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "failed: the server answered 404");
  EXPECT_EQ(Status("cty_wt_mod.dat").failures, 1);
  EXPECT_TRUE(installed_.empty());
  EXPECT_EQ(Installed("cty_wt_mod.dat"), good);
  ASSERT_FALSE(log_.empty());
  EXPECT_NE(log_.back().find("the file in use stays"), std::string::npos);

  // A retry that finds a good file installs it and ends the run of failures.
  server_.Serve("/cty/cty_wt_mod.dat", {newer});
  clock_.Advance(std::chrono::minutes(5));
  RunDue();
  EXPECT_EQ(Installed("cty_wt_mod.dat"), newer);
  EXPECT_EQ(Status("cty_wt_mod.dat").failures, 0);
}

TEST_F(DownloadManagerTest, ArchivesAreUnpackedAndTheNamedMemberInstalled) {
  const std::string calls = "# known calls\nK1ABC\nDL1XYZ\nG4ABC\n";
  server_.Serve("/scp/master.zip",
                {Zip({{"MASTER.SCP", calls}, {"readme.txt", "about"}, {"../../evil.txt", "x"}})});
  Fetch("MASTER.SCP");
  EXPECT_EQ(Status("MASTER.SCP").outcome, "installed");
  EXPECT_EQ(Installed("MASTER.SCP"), calls);
  EXPECT_EQ(testing::ReadFile(dir_ / "unzipped" / "MASTER.SCP"), calls);
  EXPECT_EQ(testing::ReadFile(dir_ / "unzipped" / "readme.txt"), "about");
  // A member's folders are dropped: it lands in data/unzipped/ and nowhere else.
  EXPECT_EQ(testing::ReadFile(dir_ / "unzipped" / "evil.txt"), "x");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "evil.txt"));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "downloads" / "master.zip"));

  server_.Serve("/scp/master.zip", {Zip({{"other.txt", calls}})});
  Fetch("MASTER.SCP");
  EXPECT_EQ(Status("MASTER.SCP").outcome, "failed: the archive holds no MASTER.SCP");
  server_.Serve("/scp/master.zip", {"PK\x03\x04 not really a zip"});
  Fetch("MASTER.SCP");
  EXPECT_TRUE(Status("MASTER.SCP").outcome.starts_with("failed: ")) << Status("MASTER.SCP").outcome;
  EXPECT_EQ(Installed("MASTER.SCP"), calls);
}

TEST_F(DownloadManagerTest, SilentAndHugeAnswersFailWithinTheirLimits) {
  options_.timeout = std::chrono::milliseconds(300);
  options_.max_bytes = 64 * 1024;
  Make();
  testing::WriteFile(dir_ / "files" / "cty_wt_mod.dat", CountryFile(12));
  server_.Serve("/cty/cty_wt_mod.dat", {"", "", 0, /*silent=*/true});
  const auto start = std::chrono::steady_clock::now();
  Fetch("cty_wt_mod.dat");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "failed: no answer within 300 ms");

  server_.Serve("/cty/cty_wt_mod.dat", {CountryFile(2000)});
  Fetch("cty_wt_mod.dat");
  EXPECT_EQ(Status("cty_wt_mod.dat").outcome, "failed: the answer is larger than 65536 bytes");
  // An archive that unpacks beyond the limit is refused the same way.
  server_.Serve("/scp/master.zip", {Zip({{"MASTER.SCP", std::string(200 * 1024, 'K')}})});
  Fetch("MASTER.SCP");
  EXPECT_EQ(Status("MASTER.SCP").outcome, "failed: the archive unpacks to more than 65536 bytes");
  EXPECT_EQ(Installed("cty_wt_mod.dat"), CountryFile(12));
  EXPECT_FALSE(manager_->Request("nonesuch.dat"));
}

TEST_F(DownloadManagerTest, UpdateCheckTellsOfANewerVersionOnce) {
  server_.Serve("/version.txt", {"1.5.0\nWhat is new: ...\n"});
  UpdateCheckOptions o;
  o.url = server_.Url("/version.txt");
  o.running = "1.4.0";
  std::vector<UpdateResult> results;
  UpdateCheck check(io_, clock_, o, "", [&](const UpdateResult& r) { results.push_back(r); });
  auto run = [&](int rounds = 500) {
    check.Tick();
    const size_t before = results.size();
    for (int i = 0; i < rounds && results.size() == before; ++i) {
      io_.restart();
      io_.run_for(std::chrono::milliseconds(10));
    }
  };
  run(/*rounds=*/10);
  EXPECT_TRUE(results.empty());  // "Auto Update" off: only when asked
  ASSERT_TRUE(check.Request());
  run();
  ASSERT_EQ(results.size(), 1u);
  EXPECT_TRUE(results[0].verdict.newer && results[0].verdict.tell);
  EXPECT_EQ(results[0].text,
            "A newer QX Cluster is available: 1.5.0 (this node runs 1.4.0); install it when "
            "convenient");
  check.Request();
  run();
  ASSERT_EQ(results.size(), 2u);
  EXPECT_TRUE(results[1].verdict.newer);
  EXPECT_FALSE(results[1].verdict.tell);

  server_.Serve("/version.txt", {"<html>gone</html>"});
  check.Request();
  run();
  ASSERT_EQ(results.size(), 3u);
  EXPECT_FALSE(results[2].ok);
  EXPECT_EQ(results[2].text, "Update check failed: the answer names no version");
}

}  // namespace
}  // namespace qx

// Every round-trip file read by a different HEIF implementation: heif-info
// must accept it, heif-convert must decode its primary image close to the
// picture that went into the encoder, and exiftool must find the Exif and
// XMP. Each check skips with a message when its tool is not installed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/files.h"
#include "writer/roundtrip_scenarios.h"

namespace {

constexpr double kMinPsnr = 35.0;

bool have_tool(const char *name) {
  const std::string cmd = std::string("command -v ") + name + " >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// Runs a shell command; its standard output and error, and its status.
std::string run(const std::string &cmd, int *status) {
  std::string out;
  FILE *p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) {
    *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  *status = pclose(p);
  return out;
}

std::string scratch_dir() {
  const char *tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp ? tmp : "/tmp") + "/tarn_interop_" + std::to_string(getpid());
  std::system(("mkdir -p '" + dir + "'").c_str());
  return dir;
}

bool write_file(const std::string &path, const tarn_test::Bytes &bytes) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

std::string size_of(const std::string &png) {
  int status;
  std::string s = run("identify -format '%wx%h' '" + png + "'", &status);
  return status == 0 ? s : std::string();
}

double psnr(const std::string &a, const std::string &b) {
  int status;
  const std::string out = run("compare -alpha off -metric PSNR '" + a + "' '" + b + "' null:", &status);
  if (out.rfind("inf", 0) == 0) return 1000.0;
  return std::atof(out.c_str());
}

class InteropTools : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = scratch_dir(); }
  void TearDown() override {
    if (!std::getenv("TARN_KEEP_INTEROP")) std::system(("rm -rf '" + dir_ + "'").c_str());
  }

  // Writes scenario sc; its path, or "" with a failure recorded.
  std::string write(const tarn_test::Scenario &sc, tarn_test::Expectation *expect) {
    tarn_test::Mux mux;
    if (!sc.build(&mux)) return "";
    const tarn_test::Bytes file = mux.finish();
    EXPECT_FALSE(file.empty());
    const std::string path = dir_ + "/" + sc.name + ".heic";
    EXPECT_TRUE(write_file(path, file));
    *expect = mux.expect;
    return path;
  }

  std::string dir_;
};

// What heif-info must report of the scenarios' images besides the primary.
struct InfoLine {
  const char *scenario;
  const char *text;
};
const InfoLine kInfoLines[] = {
    {"grid_of_tiles", "image: 512x512 (id=5), primary"},
    {"grid_with_thumbnail", "thumbnail: 128x128"},
    {"alpha", "alpha channel: yes"},
    {"depth", "depth channel: yes"},
    {"rotation", "image: 198x302 (id=1), primary"},
    {"icc_colour", "color profile: prof"},
    {"icc_colour", "color profile: nclx"},
    {"exif_and_xmp", "Exif: 76 bytes"},
    {"exif_and_xmp", "XMP: 304 bytes"},
    {"several_grids", "image: 500x300 (id=10)"},
    {"several_grids", "thumbnail: 400x400"},
    {"any_order", "thumbnail: 128x128"},
};

TEST_F(InteropTools, HeifInfoAndConvert) {
  if (!have_tool("heif-info") || !have_tool("heif-convert")) {
    GTEST_SKIP() << "heif-info/heif-convert not installed (Debian libheif-examples)";
  }
  if (!have_tool("compare") || !have_tool("identify")) {
    GTEST_SKIP() << "ImageMagick compare/identify not installed (Debian imagemagick)";
  }
  for (const tarn_test::Scenario &sc : tarn_test::scenarios()) {
    SCOPED_TRACE(sc.name);
    tarn_test::Expectation expect;
    const std::string path = write(sc, &expect);
    ASSERT_FALSE(path.empty());
    int status;
    const std::string info = run("heif-info '" + path + "'", &status);
    EXPECT_EQ(status, 0) << info;
    EXPECT_NE(info.find("primary"), std::string::npos) << info;
    for (const InfoLine &line : kInfoLines) {
      if (std::string(line.scenario) != sc.name) continue;
      EXPECT_NE(info.find(line.text), std::string::npos) << line.text << "\n" << info;
    }

    const std::string stem = dir_ + "/" + sc.name;
    const std::string conv = run("heif-convert '" + path + "' '" + stem + ".png'", &status);
    ASSERT_EQ(status, 0) << conv;
    std::string source = tarn_test::data_path("hevc/" + expect.source_png);
    if (std::string(sc.name) == "rotation") {
      // 90 degrees clockwise, as registered.
      run("convert '" + source + "' -rotate 90 '" + stem + "_source.png'", &status);
      ASSERT_EQ(status, 0);
      source = stem + "_source.png";
    }
    const std::string want = size_of(source);
    // One output per top-level image: name.png, or name-1.png, name-2.png...
    std::vector<std::string> outputs;
    if (size_of(stem + ".png") != "") outputs.push_back(stem + ".png");
    for (int i = 1; i < 10; ++i) {
      const std::string p = stem + "-" + std::to_string(i) + ".png";
      if (size_of(p) != "") outputs.push_back(p);
    }
    int compared = 0;
    for (const std::string &out : outputs) {
      if (size_of(out) != want) continue;
      ++compared;
      EXPECT_GE(psnr(out, source), kMinPsnr) << out;
    }
    EXPECT_GT(compared, 0) << "no decoded image of size " << want << "\n" << conv;
  }
}

TEST_F(InteropTools, ExiftoolReadsExifAndXmp) {
  if (!have_tool("exiftool")) GTEST_SKIP() << "exiftool not installed (Debian libimage-exiftool-perl)";
  for (const tarn_test::Scenario &sc : tarn_test::scenarios()) {
    if (std::string(sc.name) != "exif_and_xmp") continue;
    tarn_test::Expectation expect;
    const std::string path = write(sc, &expect);
    ASSERT_FALSE(path.empty());
    int status;
    const std::string out =
        run("exiftool -s -s -s -Make -Model -Orientation# -CreatorTool '" + path + "'", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "TarnCam\nModel 7\n6\nlibtarn round trip\n");
  }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Pictures in every form, sound and broken, and the raw numbers that come out.
#include <leptonica/allheaders.h>

#include <nlohmann/json.hpp>

#include "tests/tools/program.h"

namespace {

std::string bytesOf(const std::string &hex) {
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

const std::string kGreyPng = bytesOf(
    "89504e470d0a1a0a0000000d49484452000000030000000108000000003e8b4b680000000c4944415478da636068f80f0002"
    "0301801a9c263b0000000049454e44ae426082");

struct PictureCase {
  const char *name;
  std::string bytes;
  std::string samples;  // three of them in one row
};

TEST_F(Program, ReadsEveryKindOfPicture) {
  using namespace std::string_literals;
  const std::string steps = "\x00\x80\xff"s;
  const PictureCase cases[] = {
      {"grey", kGreyPng, steps},
      {"one bit",
       bytesOf("89504e470d0a1a0a0000000d4948445200000003000000010100000000339b29190000000a4944415478da63700000004200"
               "4184bf8e620000000049454e44ae426082"),
       "\x00\xff\x00"s},
      {"16 bits",
       bytesOf("89504e470d0a1a0a0000000d49484452000000030000000110000000006e1b972b0000000f4944415478da6360606868f8ff"
               "1f00068402ffff1b62f10000000049454e44ae426082"),
       steps},
      {"grey in colours",
       bytesOf("89504e470d0a1a0a0000000d4948445200000003000000010802000000948283e3000000124944415478da63606060686868"
               "f8ffff3f000d84047eac3f603d0000000049454e44ae426082"),
       steps},
      {"red, green, blue",
       bytesOf("89504e470d0a1a0a0000000d4948445200000003000000010802000000948283e30000000e4944415478da63f8cfc0c000c6"
               "000efb02fe147458420000000049454e44ae426082"),
       "\x36\xb6\x12"s},
      {"palette",
       bytesOf("89504e470d0a1a0a0000000d49484452000000030000000108030000002c3ee48600000009504c5445000000808080ffffff"
               "c1d2dda30000000c4944415478da63606064020000080004081d630a0000000049454e44ae426082"),
       steps},
      {"alpha",
       bytesOf("89504e470d0a1a0a0000000d4948445200000003000000010804000000b1e9dc3f0000000f4944415478da6360f8cf50cfc0"
               "0000067f017f1e0572c10000000049454e44ae426082"),
       steps},
      {"palette with alpha",
       bytesOf("89504e470d0a1a0a0000000d49484452000000030000000108030000002c3ee48600000009504c5445000000808080000000"
               "c16cfbb10000000374524e53ffff00d7ca0d410000000c4944415478da63606064020000080004081d630a0000000049454e"
               "44ae426082"),
       steps},
      {"P5", "P5 3 1 255\n\x00\x80\xff"s, steps},
      {"P5 with comments", "P5# a\n3#b\n 1\n#255\n255\n\x00\x80\xff"s, steps},
      {"P5 of 16 bits", "P5\n3 1\n65535\n\x00\x00\x80\x80\xff\xff"s, steps},
      {"P5 with maxval 2", "P5\n3 1\n2\n\x00\x01\x02"s, steps},
      {"P6", "P6 3 1 255\n\x00\x00\x00\x80\x80\x80\xff\xff\xff"s, steps},
      {"P2", "P2\n3 1\n# grey\n15\n0 8 # half\n15"s, "\x00\x88\xff"s},
  };
  for (const PictureCase &test : cases) {
    SCOPED_TRACE(test.name);
    write("in", test.bytes);
    succeed("image enlarge in -o out.npy");
    std::string twice;
    for (const char sample : test.samples) twice += std::string(2, sample);
    EXPECT_EQ(raw("out.npy"), twice + twice);
  }
  EXPECT_EQ(read("out.npy").substr(0, 128),
            std::string("\x93NUMPY\x01\x00\x76\x00{'descr': '|u1', 'fortran_order': False, 'shape': (2, 6), }", 69) +
                std::string(58, ' ') + "\n");
}

// A print in a format of others, made by Leptonica, is the print, or nearly so.
TEST_F(Program, ReadsFormatsOfOthers) {
  succeed("image synth --class whorl --size 120x150 -o p.pgm");
  Pix *grey = pixRead((folder / "p.pgm").c_str());
  ASSERT_NE(grey, nullptr);
  pixSetResolution(grey, 500, 500);
  Pix *coloured = pixConvertTo32(grey);
  Pix *twice = pixConvert8To16(grey, 8);
  const struct {
    const char *name;
    Pix *pix;
    int format, tolerance;
    bool resolution;
  } cases[] = {
      {"a.tif", grey, IFF_TIFF_LZW, 0, true},       {"b.tif", coloured, IFF_TIFF_ZIP, 0, true},
      {"c.tif", twice, IFF_TIFF, 1, true},          {"d.bmp", grey, IFF_BMP, 0, true},
      {"e.jpg", coloured, IFF_JFIF_JPEG, 60, true}, {"f.jp2", grey, IFF_JP2, 60, false},
      {"g.png", coloured, IFF_PNG, 0, true},        {"h.webp", coloured, IFF_WEBP, 60, false},
  };
  succeed("image enlarge p.pgm -o p.npy");
  const std::string expected = raw("p.npy");
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    ASSERT_EQ(pixWrite((folder / test.name).c_str(), test.pix, test.format), 0);
    succeed(std::string("image enlarge ") + test.name + " -o out.npy");
    const std::string samples = raw("out.npy");
    ASSERT_EQ(samples.size(), expected.size());
    int worst = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
      worst =
          std::max(worst, std::abs(static_cast<unsigned char>(samples[i]) - static_cast<unsigned char>(expected[i])));
    }
    EXPECT_LE(worst, test.tolerance);
    const nlohmann::json numbers = nlohmann::json::parse(run(std::string("image analyze --json ") + test.name).out);
    if (test.resolution) {
      EXPECT_NEAR(numbers["resolution"].get<int>(), 500, 1);
    }
  }
  pixDestroy(&grey);
  pixDestroy(&coloured);
  pixDestroy(&twice);
}

std::string chunk(const char *type, const std::string &content) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(content.size() >> shift & 0xff);
  return bytes + type + content + "CRC?";
}

TEST_F(Program, ReadsNoMoreOfAPngThanThePicture) {
  // Behind the signature and the header comes what no reader needs to look at.
  write("long.png", kGreyPng.substr(0, 33) + chunk("zTXt", std::string(4 << 20, 'x')) + kGreyPng.substr(33));
  succeed("image enlarge long.png -o out.npy");
  const std::string header = bytesOf("89504e470d0a1a0a0000000d49484452000000400000004008000000005d1a7d26");
  write("huge.png", header + chunk("IDAT", std::string(60 << 20, 'x')));
  EXPECT_EQ(run("image enlarge huge.png -o out.npy").err,
            "kelmtrova: huge.png: not a sound PNG (more data than a picture of this size can need)\n");
}

TEST_F(Program, RefusesBrokenPicturesInOneLine) {
  using namespace std::string_literals;
  std::string flipped = kGreyPng;
  flipped[45] ^= 1;
  const struct {
    std::string bytes;
    const char *message;
  } cases[] = {
      {"", "the file is empty"},
      {"GIF89a", "not a sound GIF"},
      {"%PDF-1.7", "this is a PDF, which is not read"},
      {"\xff\xd8\xff\xe0 and no more of it", "not a sound JPEG"},
      {"II*\0\x08\0\0\0\xff\xff"s, "not a sound TIFF"},
      {"no picture", "not a picture in a format that is known here"},
      {kGreyPng.substr(0, 20), "not a sound PNG"},
      {kGreyPng.substr(0, 50), "not a sound PNG"},
      {flipped, "not a sound PNG"},
      {bytesOf("89504e470d0a1a0a0000000d494844527fffffff7fffffff080000000031a254ba000000084944415478da0300000000016f"
               "ddc9910000000049454e44ae426082"),
       "too large (2147483647 x 2147483647"},
      {bytesOf("89504e470d0a1a0a0000000d4948445200002001000000010800000000bce21482000000084944415478da0300000000016f"
               "ddc9910000000049454e44ae426082"),
       "too large (8193 x 1"},
      {"P5 0 3 255\n", "the picture is empty (0 x 3"},
      {"P5 99999999999999999999 99999999999999999999 255\n", "too large"},
      {"P5 8000 8000 255\n", "too large"},
      {"P5 2896 2896 255\n", "the file ends too early"},
      {"P5 3 1 255\nab", "the file ends too early"},
      {"P5 3 1 65535\nabcde", "the file ends too early"},
      {"P5 3", "the file ends too early"},
      {"P5 3 x", "no number where the height belongs"},
      {"P5 3 1 0\n\0\0\0"s, "maxval lies between"},
      {"P5 3 1 65536\nabcdef", "maxval lies between"},
      {"P2 2 1 7\n5 8", "a sample above the maxval"},
      {"P2 2 2 7\n5 5 5", "the file ends too early"},
      {"P2 2 1 7\n5 -5", "no number where the sample belongs"},
      {"P5 63 64 255\n" + std::string(63 * 64, 'a'), "too small to analyse"},
  };
  for (const auto &test : cases) {
    write("bad.png", test.bytes);
    const Outcome outcome = run("image segment bad.png -o out.png");
    EXPECT_EQ(outcome.exitCode, 2) << test.message;
    EXPECT_EQ(outcome.err.rfind("kelmtrova: bad.png: ", 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    EXPECT_NE(outcome.err.find(test.message), std::string::npos) << outcome.err << test.message;
    EXPECT_FALSE(std::filesystem::exists(folder / "out.png"));
  }
  EXPECT_EQ(run("image reduce . -o out.png").err, "kelmtrova: .: Is a directory\n");
  EXPECT_EQ(run("image reduce missing.png -o out.png").err, "kelmtrova: missing.png: No such file or directory\n");
}

}  // namespace

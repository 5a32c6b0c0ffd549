// Encodes a stream of same-size pictures as JPEG, compressing again only the tiles that changed.
//
// Each picture is coded with a restart marker after every tile: a run of MCUs, 16 pixels tall,
// that divides the MCU row. Between restart markers a baseline JPEG's bytes depend on nothing but
// the pixels of those MCUs (the DC prediction starts over, the bit buffer is flushed, the Huffman
// tables are the standard ones), so the coded bytes of an unchanged tile are carried over from the
// previous picture. Changed tiles are compressed together as one picture whose rows point into
// the new picture, and their coded bytes spliced in. The result is byte for byte what compressing
// the whole picture with the same restart interval gives.
//
// A tile's bytes also depend on where the picture's edges cut it: libjpeg repeats the last column
// and row into a partial MCU, and codes MCU blocks lying wholly outside the picture as flat. Tiles
// on a partial right or bottom edge are therefore compressed in pictures cut the same way: the
// right-edge tiles in a column as wide as theirs, the bottom-edge tiles in a row as tall as theirs
// with the corner last.
//
// Threads: used from one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "encoders/JPEGCompressor.h"

namespace quorvix {

class JPEGTileEncoder {
 public:
  // Where the tiles of a picture lie.
  struct Layout {
    int width = 0;
    int height = 0;
    int restartInterval = 0;  // MCUs per tile
    int columns = 0;
    int rows = 0;
    int tileWidth = 0;  // pixels; the last column may be narrower
    int lastColumnWidth = 0;
    int lastRowHeight = 0;  // 16 unless the bottom MCU row is partial

    static Layout of(int width, int height);
    int tileCount() const { return columns * rows; }
  };

  // `maxCollageTiles` bounds how many tiles go into one picture of changed tiles (the format allows
  // 65,500 rows); tests lower it to exercise the split.
  explicit JPEGTileEncoder(JPEGCompressor& compressor, int maxCollageTiles = 4000);

  // The picture as a JPEG, valid until the next call; empty when the compressor fails. Tiles equal
  // to the previous picture's, which this encoder keeps, are carried over; when `changes` says
  // where the picture differs from that one, only the tiles it names are compared.
  std::span<const std::uint8_t> encode(std::shared_ptr<const QRVImage> image,
                                       const QRVPictureChanges* changes = nullptr);
  // Forgets the previous picture and its tiles.
  void clear();

  // How many tiles the last encode() compressed (all of them for a whole picture).
  int lastCompressedTiles() const { return lastCompressedTiles_; }

 private:
  std::span<const std::uint8_t> encodeWhole(const QRVImage& image);
  bool encodeChanged(const QRVImage& image, std::span<const int> changed);
  bool compressCollage(int width,
                       std::span<const std::uint8_t* const> rows,
                       std::span<const int> tiles);
  std::span<const std::uint8_t> assemble();

  JPEGCompressor& compressor_;
  const int maxCollageTiles_;
  Layout layout_;
  std::shared_ptr<const QRVImage> previous_;
  std::vector<std::uint8_t> header_;              // up to and including the start of scan
  std::vector<std::vector<std::uint8_t>> tiles_;  // each tile's coded bytes, without markers
  std::vector<std::uint8_t> output_;
  std::vector<int> changed_;
  std::vector<bool> candidates_;
  std::vector<const std::uint8_t*> rows_;
  int lastCompressedTiles_ = 0;
};

// The parts of a baseline JPEG with restart markers: the bytes before the entropy-coded data, and
// the coded data between markers. Empty when the bytes are not such a JPEG.
struct JPEGScan {
  std::span<const std::uint8_t> header;
  std::vector<std::span<const std::uint8_t>> intervals;
};
std::optional<JPEGScan> splitJPEGScan(std::span<const std::uint8_t> jpeg);

}  // namespace quorvix

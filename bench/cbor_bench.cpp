// Encoding and decoding the two typical socket messages — a frame envelope carrying 100 KB of
// picture bytes, and a small mouse event — with this library's codec and two peers in the same
// run: nlohmann-json's CBOR functions and libcbor.
#include <cbor.h>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "cbor/CBORDecoder.h"
#include "quorvix/CBOR.h"

namespace {

using quorvix::Value;
using json = nlohmann::json;

constexpr std::size_t kPictureBytes = 100 * 1024;
constexpr const char* kTimestamp = "2026-11-21T08:00:00+00:00";

std::vector<std::uint8_t> picture() {
  std::vector<std::uint8_t> b(kPictureBytes);
  for (std::size_t i = 0; i < b.size(); ++i)
    b[i] = static_cast<std::uint8_t>(i * 131 + 7);
  return b;
}

// ---- the messages in each library's own value model -------------------------------------------

Value frameValue() {
  return Value::Map{{"id", 42},
                    {"event", "frame"},
                    {"data", Value::Map{{"type", "image"},
                                        {"id", 7},
                                        {"data", Value(picture())},
                                        {"timestamp", kTimestamp},
                                        {"mime_type", "image/jpeg"}}}};
}

Value mouseValue() {
  return Value::Map{{"id", 43},
                    {"event", "mouse"},
                    {"data", Value::Map{{"type", "mousedown"},
                                        {"x", 0.4375},
                                        {"y", 0.71875},
                                        {"button", 0},
                                        {"timestamp", "2026-11-21T08:00:00.125Z"}}}};
}

json frameJson() {
  return json{{"id", 42},
              {"event", "frame"},
              {"data",
               {{"type", "image"},
                {"id", 7},
                {"data", json::binary(picture())},
                {"timestamp", kTimestamp},
                {"mime_type", "image/jpeg"}}}};
}

json mouseJson() {
  return json{{"id", 43},
              {"event", "mouse"},
              {"data",
               {{"type", "mousedown"},
                {"x", 0.4375},
                {"y", 0.71875},
                {"button", 0},
                {"timestamp", "2026-11-21T08:00:00.125Z"}}}};
}

struct CborItem {
  cbor_item_t* item;
  ~CborItem() { cbor_decref(&item); }
};

void add(cbor_item_t* map, const char* key, cbor_item_t* value) {
  cbor_map_add(map, {cbor_move(cbor_build_string(key)), cbor_move(value)});
}

cbor_item_t* libcborFrame() {
  auto bytes = picture();
  cbor_item_t* data = cbor_new_definite_map(5);
  add(data, "type", cbor_build_string("image"));
  add(data, "id", cbor_build_uint8(7));
  add(data, "data", cbor_build_bytestring(bytes.data(), bytes.size()));
  add(data, "timestamp", cbor_build_string(kTimestamp));
  add(data, "mime_type", cbor_build_string("image/jpeg"));
  cbor_item_t* root = cbor_new_definite_map(3);
  add(root, "id", cbor_build_uint8(42));
  add(root, "event", cbor_build_string("frame"));
  add(root, "data", data);
  return root;
}

cbor_item_t* libcborMouse() {
  cbor_item_t* data = cbor_new_definite_map(5);
  add(data, "type", cbor_build_string("mousedown"));
  add(data, "x", cbor_build_float8(0.4375));
  add(data, "y", cbor_build_float8(0.71875));
  add(data, "button", cbor_build_uint8(0));
  add(data, "timestamp", cbor_build_string("2026-11-21T08:00:00.125Z"));
  cbor_item_t* root = cbor_new_definite_map(3);
  add(root, "id", cbor_build_uint8(43));
  add(root, "event", cbor_build_string("mouse"));
  add(root, "data", data);
  return root;
}

// ---- encoding ----------------------------------------------------------------------------------

template <Value (*Make)()>
void Quorvix_Encode(benchmark::State& state) {
  Value v = Make();
  for (auto _ : state) {
    auto bytes = quorvix::CBOR::encodeAny(v);
    benchmark::DoNotOptimize(bytes->data());
  }
}

template <json (*Make)()>
void Nlohmann_Encode(benchmark::State& state) {
  json j = Make();
  for (auto _ : state) {
    auto bytes = json::to_cbor(j);
    benchmark::DoNotOptimize(bytes.data());
  }
}

template <cbor_item_t* (*Make)()>
void Libcbor_Encode(benchmark::State& state) {
  CborItem item{Make()};
  for (auto _ : state) {
    unsigned char* buffer = nullptr;
    size_t size = 0;
    size_t written = cbor_serialize_alloc(item.item, &buffer, &size);
    benchmark::DoNotOptimize(written);
    free(buffer);
  }
}

// ---- decoding ----------------------------------------------------------------------------------

template <Value (*Make)()>
std::vector<std::uint8_t> encoded() {
  return *quorvix::CBOR::encodeAny(Make());
}

template <Value (*Make)()>
void Quorvix_Decode(benchmark::State& state) {
  auto bytes = encoded<Make>();
  for (auto _ : state) {
    quorvix::CBORDecoder d(bytes);
    auto item = d.decodeItem();
    benchmark::DoNotOptimize(item);
  }
}

template <Value (*Make)()>
void Nlohmann_Decode(benchmark::State& state) {
  auto bytes = encoded<Make>();
  for (auto _ : state) {
    auto j = json::from_cbor(bytes);
    benchmark::DoNotOptimize(j);
  }
}

template <Value (*Make)()>
void Libcbor_Decode(benchmark::State& state) {
  auto bytes = encoded<Make>();
  for (auto _ : state) {
    cbor_load_result result;
    cbor_item_t* item = cbor_load(bytes.data(), bytes.size(), &result);
    benchmark::DoNotOptimize(item);
    cbor_decref(&item);
  }
}

BENCHMARK(Quorvix_Encode<frameValue>)->Name("Encode/Frame/Quorvix");
BENCHMARK(Nlohmann_Encode<frameJson>)->Name("Encode/Frame/nlohmann");
BENCHMARK(Libcbor_Encode<libcborFrame>)->Name("Encode/Frame/libcbor");
BENCHMARK(Quorvix_Encode<mouseValue>)->Name("Encode/Mouse/Quorvix");
BENCHMARK(Nlohmann_Encode<mouseJson>)->Name("Encode/Mouse/nlohmann");
BENCHMARK(Libcbor_Encode<libcborMouse>)->Name("Encode/Mouse/libcbor");
BENCHMARK(Quorvix_Decode<frameValue>)->Name("Decode/Frame/Quorvix");
BENCHMARK(Nlohmann_Decode<frameValue>)->Name("Decode/Frame/nlohmann");
BENCHMARK(Libcbor_Decode<frameValue>)->Name("Decode/Frame/libcbor");
BENCHMARK(Quorvix_Decode<mouseValue>)->Name("Decode/Mouse/Quorvix");
BENCHMARK(Nlohmann_Decode<mouseValue>)->Name("Decode/Mouse/nlohmann");
BENCHMARK(Libcbor_Decode<mouseValue>)->Name("Decode/Mouse/libcbor");

}  // namespace

BENCHMARK_MAIN();

// Per-message costs of the codecs on the data paths: serial frames, hex text
// and the LoRa LAN datagrams, through the service's own functions.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "service/common.h"
#include "service/lora_lan_message.h"
#include "service/serial_frame.h"

namespace tc = Zentrova::Iot::TransparentChannel;

namespace {

std::string pattern_bytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + 7) & 0xff);
  return s;
}

// Header written in front of a payload already in place, as the bridge does.
void BM_FrameEncode(benchmark::State& state) {
  const size_t payload = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> frame(tc::kFrameMaxSize);
  for (auto _ : state) {
    tc::write_frame_header(frame.data(), tc::kFrameData, static_cast<uint16_t>(payload + tc::kFrameHeaderSize));
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * payload));
}
BENCHMARK(BM_FrameEncode)->Arg(1)->Arg(64)->Arg(1468);

// A receive buffer holding back-to-back frames, walked the way the bridge walks it.
void BM_FrameParse(benchmark::State& state) {
  const size_t payload = static_cast<size_t>(state.range(0));
  const size_t frame_len = payload + tc::kFrameHeaderSize;
  const size_t frames = 64;
  std::vector<uint8_t> buf(frame_len * frames);
  for (size_t i = 0; i < frames; ++i) {
    tc::write_frame_header(&buf[i * frame_len], tc::kFrameData, static_cast<uint16_t>(frame_len));
  }
  for (auto _ : state) {
    size_t off = 0;
    size_t data = 0;
    tc::FrameHeader header{};
    while (tc::examine_frame(&buf[off], buf.size() - off, header) == tc::FrameCheck::complete) {
      if (tc::classify_frame(header, true, false) == tc::FrameRole::data) data += header.len - tc::kFrameHeaderSize;
      off += header.len;
      if (off >= buf.size()) break;
    }
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * frames));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frames * payload));
}
BENCHMARK(BM_FrameParse)->Arg(1)->Arg(64)->Arg(1468);

void BM_HexEncode(benchmark::State& state) {
  const std::string in = pattern_bytes(static_cast<size_t>(state.range(0)));
  std::string out;
  for (auto _ : state) {
    out.clear();
    tc::bytes_to_hex(in, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}
BENCHMARK(BM_HexEncode)->Arg(16)->Arg(242)->Arg(1024);

void BM_HexDecode(benchmark::State& state) {
  std::string hex;
  tc::bytes_to_hex(pattern_bytes(static_cast<size_t>(state.range(0))), hex);
  std::string out;
  for (auto _ : state) {
    tc::hex_to_bytes(hex, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_HexDecode)->Arg(16)->Arg(242)->Arg(1024);

// Payload bytes in, downlink text out (hex conversion included).
void BM_DownlinkBuild(benchmark::State& state) {
  const std::string payload = pattern_bytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = tc::build_lora_lan_downlink(payload, "00aa11bb22cc33dd", 10, false);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_DownlinkBuild)->Arg(16)->Arg(242);

void BM_UplinkParse(benchmark::State& state) {
  std::string hex;
  tc::bytes_to_hex(pattern_bytes(static_cast<size_t>(state.range(0))), hex);
  const std::string text =
      "{\"devEui\":\"00aa11bb22cc33dd\",\"data\":\"" + hex + "\",\"fport\":5,\"mtype\":2,\"rssi\":-57,\"snr\":9.5}";
  for (auto _ : state) {
    tc::LoraLanDatagram d = tc::parse_lora_lan_datagram(text);
    if (d.kind != tc::LoraLanDatagramKind::uplink) state.SkipWithError("uplink not recognised");
    benchmark::DoNotOptimize(d.data.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_UplinkParse)->Arg(16)->Arg(242);

void BM_ResultParse(benchmark::State& state) {
  const std::string text = "{\"result\":0}";
  for (auto _ : state) {
    tc::LoraLanDatagram d = tc::parse_lora_lan_datagram(text);
    benchmark::DoNotOptimize(d.result);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_ResultParse);

}  // namespace

BENCHMARK_MAIN();

// Real H.264/HEVC elementary streams for tests, made at test time by ffmpeg's x264/x265.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/annexb.h"

// Encodes `frames` 320x240 test-pattern frames into an Annex-B stream at `path`, with an
// IDR picture every `keyint` frames (closed GOPs, no scene-cut key frames) and `bframes`
// B-frames. False when ffmpeg or its encoder is not available.
bool encodeTestStream(AnnexBCodec codec, int frames, int keyint, int bframes, const std::string& path);

// A fresh directory under the system's temporary directory.
std::string makeTestDirectory();

std::vector<uint8_t> readFileBytes(const std::string& path);

// Runs a shell command; its exit status, and its standard output in `output` when given.
int runCommand(const std::string& command, std::string* output = nullptr);

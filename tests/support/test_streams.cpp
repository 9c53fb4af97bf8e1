#include "support/test_streams.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

int runCommand(const std::string& command, std::string* output) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    char chunk[4096];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        if (output) output->append(chunk, got);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool encodeTestStream(AnnexBCodec codec, int frames, int keyint, int bframes, const std::string& path) {
    const std::string k = std::to_string(keyint);
    const std::string b = std::to_string(bframes);
    std::string encoder;
    if (codec == AnnexBCodec::Hevc)
        encoder = "-c:v libx265 -x265-params keyint=" + k + ":min-keyint=" + k + ":bframes=" + b +
                  ":open-gop=0:scenecut=0:repeat-headers=1:log-level=error -f hevc";
    else
        encoder = "-c:v libx264 -g " + k + " -keyint_min " + k + " -sc_threshold 0 -bf " + b + " -f h264";
    const std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=30 -frames:v " +
                                std::to_string(frames) + " " + encoder + " '" + path + "' 2>/dev/null";
    return runCommand(command) == 0;
}

std::string makeTestDirectory() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/zoqrv_test_XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
    return pattern;
}

std::vector<uint8_t> readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

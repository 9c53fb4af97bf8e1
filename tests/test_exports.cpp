// The shared library as a host application's loader sees it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {

const std::string kLibrary = std::string(ZOQRV_BINARY_DIR) + "/libzo_qrv64.so";

std::string runCommand(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return output;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    pclose(pipe);
    return output;
}

std::set<std::string> definedDynamicSymbols() {
    std::set<std::string> names;
    std::istringstream lines(runCommand("nm -D --defined-only " + kLibrary));
    std::string line;
    while (std::getline(lines, line)) {
        const std::string name = line.substr(line.rfind(' ') + 1);
        names.insert(name.substr(0, name.find('@')));  // drop a version suffix
    }
    return names;
}

}  // namespace

TEST(SharedLibrary, ExportsExactlyTheCInterface) {
    const std::set<std::string> expected = {
        "ZOHW_CreateEncoder",         "ZOHW_CreateDecoder",          "ZOHW_Destroy",
        "ZOHW_Encode",                "ZOHW_Encode_And_Store",       "ZOHW_Decode",
        "ZOHW_DecodeFrameAndMetadata", "ZOHW_StartDecoding",         "ZOHW_GetDecoderType",
        "ZOHW_GetEncCapabilities",    "ZOHW_GetError",               "ZOHW_GetVersion",
        "ZOHW_GetMetadataForSample",  "ZOHW_GetTimeStampForSample",  "ZOHW_SetHEVCPositionInFile",
        "ZOHW_CreateQRVContainer",    "ZOHW_CloseQRVContainer",      "ZOHW_CreateQRVTracker",
        "NvOptimusEnablementCuda"};
    EXPECT_EQ(definedDynamicSymbols(), expected);
}

TEST(SharedLibrary, HasNoLinkTimeDependencyOnTheDriverOrTheCudaRuntime) {
    const std::string needed = runCommand("readelf -d " + kLibrary + " | grep NEEDED");
    ASSERT_NE(needed.find("libc.so"), std::string::npos) << needed;  // the listing was read
    for (const char* library : {"libcuda.so", "libnvcuvid", "libnvidia-encode", "libcudart"})
        EXPECT_EQ(needed.find(library), std::string::npos) << library << " in\n" << needed;
}

TEST(SharedLibrary, LoadsAndAnswersWithoutAGpu) {
    void* handle = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto* optimus = static_cast<const uint32_t*>(dlsym(handle, "NvOptimusEnablementCuda"));
    ASSERT_NE(optimus, nullptr);
    EXPECT_EQ(*optimus, 1u);
    auto* getVersion = reinterpret_cast<uint32_t (*)()>(dlsym(handle, "ZOHW_GetVersion"));
    ASSERT_NE(getVersion, nullptr);
    EXPECT_EQ(getVersion(), 100u);
    dlclose(handle);
}

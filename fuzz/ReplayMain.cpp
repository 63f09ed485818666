// Replays a fuzz target's corpus without a fuzzing engine: every file in the directories
// (or the files) named on the command line goes once through LLVMFuzzerTestOneInput.

// 64-bit directory offsets and inode numbers: without this a 32-bit build (ARM under qemu on
// a 64-bit file system) gets EOVERFLOW from readdir and sees an empty corpus.
#define _FILE_OFFSET_BITS 64
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replayFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat info;
        if (stat(argv[i], &info) != 0) {
            std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
            ++failures;
            continue;
        }
        if (!S_ISDIR(info.st_mode)) {
            failures += replayFile(argv[i]);
            ++files;
            continue;
        }
        DIR* dir = opendir(argv[i]);
        while (dirent* entry = dir ? readdir(dir) : nullptr) {
            if (entry->d_name[0] == '.') continue;
            failures += replayFile(std::string(argv[i]) + "/" + entry->d_name);
            ++files;
        }
        if (dir) closedir(dir);
    }
    std::printf("replayed %d inputs\n", files);
    return failures == 0 && files > 0 ? 0 : 1;
}

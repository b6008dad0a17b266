// Replays the kept fuzz inputs without libFuzzer: every file under
// <corpus>/<target>/ through its loader target. Seeds and the inputs of past
// findings stay in the corpus, so a plain test build checks them all.
//
//   wmfuzz_replay <corpus directory>
//
// Exit 0 when every input ran, 77 when the harness can't run here (no
// private IPC namespace), and an abort at the first input that breaks a rule.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Harness.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    if (!wmfuzz::Init()) return 77;
    int nInputs = 0;
    for (wmfuzz::Target t : {wmfuzz::Target::Names, wmfuzz::Target::UIDs,
                             wmfuzz::Target::ControlFile, wmfuzz::Target::DataFile}) {
        const std::string dir = std::string(argv[1]) + "/" + wmfuzz::TargetName(t);
        std::vector<std::string> files;
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d))
                if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
            closedir(d);
        }
        if (files.empty()) {
            fprintf(stderr, "%s: no inputs in %s\n", argv[0], dir.c_str());
            return 1;
        }
        std::sort(files.begin(), files.end());
        for (const std::string& path : files) {
            const std::string input = wmfuzz::ReadAll(path);
            fprintf(stderr, "%s\n", path.c_str());
            wmfuzz::RunOne(t, reinterpret_cast<const uint8_t*>(input.data()), input.size());
            ++nInputs;
        }
    }
    printf("%d inputs replayed\n", nInputs);
    return 0;
}

// JSONC benchmark: writes a generated configuration-like JSONC file of a
// given size (comments, nesting, strings with escapes, numbers, trailing
// commas), then measures parsing it and removing one member from it.
//
//   jsonc_bench generate FILE [MEGABYTES]
//   jsonc_bench measure FILE
//
// `measure` prints key=value lines: the file size, the time of the first
// parse in the process, the median and best parse times, and the median and
// best times of one removingMember on the whole file.
//
// The first parse pays for fresh memory: every page the text copy and the
// tree touch is faulted in, which on a virtual machine can cost more than the
// parse itself. The repeated rounds then measure the steady state of a
// process that parses again and again, with the allocator asked to keep freed
// memory (as a garbage-collected runtime such as node's does) instead of
// handing it back to the system after every document.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <string>
#include <vector>

#include "jsonc/JSONCDocument.h"

namespace {

constexpr const char* removedEntry = "entry-05000";

std::string entry(std::size_t i) {
    char key[32];
    std::snprintf(key, sizeof key, "entry-%05zu", i);
    std::string n = std::to_string(i);
    std::string s;
    s += "  // " + std::string(key) + ": generated for the benchmark\n";
    s += "  \"" + std::string(key) + "\": {\n";
    s += "    \"name\": \"Project \\\"" + n + "\\\" caf\\u00e9 \xE2\x80\x94 r\xC3\xA9sum\xC3\xA9\",\n";
    s += "    \"path\": \"C:\\\\Users\\\\someone\\\\Movies\\\\Project " + n + "\\\\clip.mov\",\n";
    s += "    \"url\": \"https://example.invalid/projects/" + n + "/footage?take=" + n + "&cut=final\",\n";
    s += "    \"enabled\": " + std::string(i % 3 ? "true" : "false") + ",\n";
    s += "    \"ratio\": 1." + std::to_string(7777777 + i) + ",\n";
    s += "    \"size\": " + std::to_string(1048576 * (i % 97 + 1)) + ",\n";
    s += "    \"offset\": -" + std::to_string(i % 10) + ".5e-3,\n";
    s += "    \"tags\": [\"video\", \"4k\", \"hdr\", \"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\", \"take " + n + "\",],\n";
    s += "    /* Settings as the user left them;\n       block comments may span lines. */\n";
    s += "    \"settings\": {\n";
    s += "      \"codec\": \"h264\",\n";
    s += "      \"bitrate\": " + std::to_string(12000000 + i) + ",\n";
    s += "      \"frames\": [0, 24, 48, 72, 96, 120, " + n + "],\n";
    s += "      \"nested\": { \"a\": [1, 2.5, -3e2, {\"b\": null}], \"c\": \"line\\nbreak\\ttab \\ud83c\\udfac\" },\n";
    s += "      \"notes\": \"Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod tempor.\", // why\n";
    s += "    },\n";
    s += "    \"history\": [\n";
    for (int k = 0; k < 3; ++k)
        s += "      { \"at\": " + std::to_string(1700000000 + i * 10 + k) + ", \"what\": \"edit " +
             std::to_string(k) + "\", \"ok\": true },\n";
    s += "    ]\n";
    s += "  },\n";
    return s;
}

std::string generate(std::size_t bytes) {
    std::string text = "{\n  // A large configuration-like document.\n  \"$schema\": \"https://example.invalid/s.json\",\n";
    for (std::size_t i = 0; text.size() < bytes; ++i) text += entry(i);
    text += "  \"last\": null\n}\n";
    return text;
}

template <class Work>
std::vector<double> timings(int rounds, Work work) {
    std::vector<double> seconds;
    for (int i = 0; i < rounds; ++i) {
        auto start = std::chrono::steady_clock::now();
        work();
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(seconds.begin(), seconds.end());
    return seconds;
}

int usage() {
    std::fprintf(stderr, "usage: jsonc_bench generate FILE [MEGABYTES] | jsonc_bench measure FILE\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage();
    std::string command = argv[1], file = argv[2];
    if (command == "generate") {
        double megabytes = argc > 3 ? std::atof(argv[3]) : 10;
        std::ofstream(file, std::ios::binary) << generate(static_cast<std::size_t>(megabytes * 1e6));
        return 0;
    }
    if (command != "measure") return usage();

    std::ifstream in(file, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string text = buffer.str();
    if (text.empty()) {
        std::fprintf(stderr, "jsonc_bench: %s is empty or missing\n", file.c_str());
        return 1;
    }

    std::size_t members = 0;
    auto first = timings(1, [&] { members = jsonc::JSONCDocument::parse(text)->root().members().size(); });
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    for (int i = 0; i < 3; ++i) jsonc::JSONCDocument::parse(text);
    auto parse = timings(25, [&] {
        auto document = jsonc::JSONCDocument::parse(text);
        members = document->root().members().size();
    });
    std::size_t removedBytes = 0;
    auto remove = timings(15, [&] {
        auto edited = jsonc::JSONCDocument::removingMember({removedEntry}, text);
        removedBytes = text.size() - edited->size();
    });
    std::printf("bytes=%zu\nmembers=%zu\n", text.size(), members);
    std::printf("parse_first=%.6f\n", first.front());
    std::printf("parse_median=%.6f\nparse_best=%.6f\n", parse[parse.size() / 2], parse.front());
    std::printf("remove_median=%.6f\nremove_best=%.6f\nremoved_bytes=%zu\n", remove[remove.size() / 2],
                remove.front(), removedBytes);
    return 0;
}

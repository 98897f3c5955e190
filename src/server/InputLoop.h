// The input loop: standard input cut into lines and handed to the bridge.
// A dedicated thread does blocking reads of whole chunks (which works alike
// for pipes, files and terminals), cuts them at line feeds and hands the
// complete lines of each chunk to the bridge's strand, where they are
// received one after another in arrival order; the thread reads on only when
// all of them have been received. A carriage return is an ordinary byte;
// empty lines are skipped; a last line without a line feed is handled at the
// end of input. Then, or when reading fails (logged), `finished` is called
// on the reading thread, once every line has been received.
#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace server {

class StudioMCPBridge;


// Cuts a byte stream into lines. Plain value; one thread at a time.
class LineSplitter {
public:
    // Appends the complete, non-empty lines that the bytes finish to
    // `lines`. The views point into `bytes` or into the splitter, and stay
    // valid until the next call or until `bytes` goes away.
    void feed(std::string_view bytes, std::vector<std::string_view>& lines);
    // The unfinished last line, if it is not empty; the buffer is emptied.
    std::optional<std::string> finish();
    void discard() { buffer_.clear(); }

private:
    std::string buffer_;  // the unfinished line
    std::string joined_;  // a line begun in an earlier read and ended in this one
};

// Starts the reading thread on `fd`; the caller joins it.
std::thread startInputLoop(int fd, std::shared_ptr<StudioMCPBridge> bridge, std::function<void()> finished);

}  // namespace server

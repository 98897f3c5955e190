#include "installer/Answer.h"

#include <cmath>

#include "installer/Outcome.h"
#include "jsonc/UTF8.h"

namespace BridgeInstaller {

Answer ask(const System& system, const std::filesystem::path& program, const std::vector<std::string>& arguments,
           double timeout) {
    return answer(system.commands.run(program, arguments, timeout), timeout);
}

Answer answer(const platform::CommandResult& result, double timeout) {
    if (result.failure) return {-1, because(*result.failure).message(), false};
    std::string bytes = result.head;
    if (result.cut) {
        bytes += "\n(" + std::to_string(result.cut) + " bytes cut from the middle of this output)\n" + result.tail;
    }
    Answer answer{result.stopped ? -1 : result.status, {}, result.exited && !result.stopped};
    jsonc::utf8::appendRepaired(answer.output, bytes);
    if (result.stopped) {
        double seconds = std::isfinite(timeout) && timeout > 0 ? timeout : 0;
        std::string whole = std::to_string(static_cast<long long>(seconds));
        answer.output += result.survivedKill ? "\n(no answer after " + whole + " s, and it did not end when killed)"
                                             : "\n(stopped after " + whole + " s without an answer)";
    }
    return answer;
}

}  // namespace BridgeInstaller

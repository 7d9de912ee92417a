// Questions to a reader and its answers: one process, started when something is asked and anew
// after its end. Whatever a question leads to, it ends with an answer or a Failure.
//
// Threads  one at a time, but for interrupt(). A question waits for the disk, at most kPatience.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "common/process/child_process.h"
#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

struct Failure {
    enum class Kind {
        file,     // this file ends a reader, and will do so again
        disk,     // it did not answer in time, or was told to wait no longer
        machine,  // there is no reader to be had
    };
    Kind kind;
    std::string reason;
};

template <typename Result>
using Outcome = std::variant<Result, Failure>;

// A picture in memory that nobody can change the size of. What it holds was put there by a reader,
// but for its first bytes, which say that it is a picture.
struct Picture {
    UniqueFd memory;  // none: there is no picture
    size_t size = 0;  // bytes

    std::string bytes() const;
};

// A text that the reader may have put there; empty where it is none.
std::string utf8_in(const char (&field)[kMaxText]);

// Of a reader whose answers can't be.
inline constexpr char kReaderLied[] = "its reader lied";

class Questions {
  public:
    static constexpr std::chrono::seconds kPatience{30};

    // `program`: the file's name, see child_process.h.
    explicit Questions(const char* program);
    Questions(const Questions&) = delete;
    Questions& operator=(const Questions&) = delete;

    // What goes on until the answer comes.
    class Meanwhile {
      public:
        virtual ~Meanwhile() = default;
        // How long to wait for the next word, at most; negative: for ever.
        virtual std::chrono::milliseconds patience() { return kPatience; }
        // After that: waits again, or it is a failure of the disk.
        virtual bool waits_on() { return false; }
        // The reader says something that is no answer.
        enum class Heard { lie, news, question };
        virtual Heard heard(const Answer& /*said*/, Request* /*reply, to a question*/) {
            return Heard::lie;
        }
    };
    // The answer is the asked reader's, and to be believed in nothing.
    Outcome<Answer> ask(const Request& request, const UniqueFd& file, const UniqueFd& memory = {});
    Outcome<Answer> ask(Request request, const UniqueFd& file, const UniqueFd& memory,
                        Meanwhile& meanwhile);
    // For a job that leads to a picture.
    Outcome<Picture> ask_for_picture(const Request& request, const UniqueFd& file);

    // Gives the process back until the next question.
    void rest();
    // And the next one has this argument.
    void rest(const char* option);
    // A question that is under way, and each one from now on, is a failure of the disk. Any thread.
    void interrupt();

  private:
    bool wait(std::chrono::milliseconds patience);
    enum class Word { answer, lie, end, none };
    Word next_word(Meanwhile& meanwhile, Answer* answer);
    Failure fail(Word last, const Answer& answer);

    const char* const m_program;
    const char* m_option = nullptr;
    const UniqueFd m_interruption;  // an eventfd
    std::unique_ptr<ChildProcess> m_process;
    uint32_t m_number = 0;
    bool m_is_interrupted = false;
};

}  // namespace nuvio::reader

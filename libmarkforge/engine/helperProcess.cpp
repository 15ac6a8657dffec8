// markforge::helperProcess: fork, exec, feed, read with a deadline, reap.
#include "helperProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace markforge {
namespace {

using clock = std::chrono::steady_clock;

// The most of the standard error a message quotes, however long its lines.
constexpr size_t MAX_ERROR_TEXT = 1000;

// A pipe whose both ends close on exec; the child moves its end onto 0, 1
// or 2, which clears that.
struct pipeEnds {
    int read = -1;
    int write = -1;
    bool Open()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return false;
        read = fds[0];
        write = fds[1];
        return true;
    }
    static void CloseEnd(int& fd)
    {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    ~pipeEnds()
    {
        CloseEnd(read);
        CloseEnd(write);
    }
};

// The environment the helper gets: ours, with `extra` replacing any
// variable of the same name.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra)
{
    std::vector<std::string> result;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string line = *entry;
        bool replaced = false;
        for (const std::string& setting : extra)
            replaced = replaced || line.compare(0, setting.find('=') + 1, setting, 0, setting.find('=') + 1) == 0;
        if (!replaced) result.push_back(line);
    }
    result.insert(result.end(), extra.begin(), extra.end());
    return result;
}

std::vector<char*> PointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(&text[0]);
    pointers.push_back(nullptr);
    return pointers;
}

// In the child, between fork and exec: only async-signal-safe calls. The
// helper goes when the build does, however the build ends: its own process
// group keeps it from the terminal's Ctrl-C, so the kernel kills it when
// the thread that started it is gone.
[[noreturn]] void BecomeHelper(char** argv, char** envp, int in, int out, int err, int execStatus, pid_t parent)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    const int moves[3][2] = {{in, 0}, {out, 1}, {err, 2}};
    for (const auto& move : moves) {
        if (move[0] == move[1])
            fcntl(move[1], F_SETFD, 0);
        else
            dup2(move[0], move[1]);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    execvpe(argv[0], argv, envp);
    const int error = errno;
    (void)!write(execStatus, &error, sizeof error);
    _exit(127);
}

int MillisecondsLeft(clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, 1000));
}

// Holds SIGPIPE back on this thread while it lives: a helper that does not
// read its input must not end the build. A broken pipe it raised is taken
// back before the mask is restored.
class pipeSignalHeld {
public:
    pipeSignalHeld()
    {
        sigemptyset(&_pipe);
        sigaddset(&_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_pipe, &_before);
    }
    ~pipeSignalHeld()
    {
        const timespec now{0, 0};
        while (sigtimedwait(&_pipe, nullptr, &now) == SIGPIPE) {
        }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
    }

private:
    sigset_t _pipe;
    sigset_t _before;
};

// Feeds the input and reads standard output and standard error until both
// end or the deadline passes, all through one poll, so that a helper that
// neither reads nor writes cannot block it. False at the deadline.
class exchange {
public:
    exchange(pipeEnds& in, pipeEnds& out, pipeEnds& err, const helperCall& call, helperRun& run)
        : _in(in), _out(out), _err(err), _call(call), _run(run)
    {
        fcntl(_in.write, F_SETFL, fcntl(_in.write, F_GETFL) | O_NONBLOCK);
        if (_call.input.empty()) pipeEnds::CloseEnd(_in.write);
    }

    bool Run(clock::time_point deadline)
    {
        const pipeSignalHeld held;
        while (_out.read >= 0 || _err.read >= 0) {
            pollfd watched[3] = {{_out.read, POLLIN, 0}, {_err.read, POLLIN, 0}, {_in.write, POLLOUT, 0}};
            const int left = MillisecondsLeft(deadline);
            if (left == 0) return false;
            if (poll(watched, 3, left) < 0 && errno != EINTR) return false;
            if (watched[0].revents) ReadOutput();
            if (watched[1].revents) ReadError();
            if (watched[2].revents) Feed();
        }
        pipeEnds::CloseEnd(_in.write);
        return true;
    }

private:
    // Reads what is there from `fd`, closing it at its end; the count read.
    size_t ReadSome(int& fd)
    {
        const ssize_t got = read(fd, _buffer, sizeof _buffer);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
        if (got <= 0) pipeEnds::CloseEnd(fd);
        return got > 0 ? static_cast<size_t>(got) : 0;
    }

    void ReadOutput()
    {
        const size_t got = ReadSome(_out.read);
        const size_t room = _call.outputLimit - std::min(_call.outputLimit, _run.output.size());
        _run.output.insert(_run.output.end(), _buffer, _buffer + std::min(room, got));
        _run.outputTooLong = _run.outputTooLong || got > room;
    }

    void ReadError()
    {
        const size_t got = ReadSome(_err.read);
        _run.errorTail.append(reinterpret_cast<const char*>(_buffer), got);
        if (_run.errorTail.size() > 2 * helperProcess::ERROR_TAIL_BYTES)
            _run.errorTail.erase(0, _run.errorTail.size() - helperProcess::ERROR_TAIL_BYTES);
    }

    // Writes what the pipe takes; closes it once all is written or the
    // helper closed its end.
    void Feed()
    {
        const ssize_t wrote = write(_in.write, _call.input.data() + _fed, _call.input.size() - _fed);
        if (wrote < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (wrote > 0) _fed += static_cast<size_t>(wrote);
        if (wrote <= 0 || _fed == _call.input.size()) pipeEnds::CloseEnd(_in.write);
    }

    pipeEnds& _in;
    pipeEnds& _out;
    pipeEnds& _err;
    const helperCall& _call;
    helperRun& _run;
    size_t _fed = 0;
    uint8_t _buffer[16384];
};

// Waits for the helper to end until the deadline. False at the deadline.
bool Reap(pid_t pid, clock::time_point deadline, helperRun& run)
{
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
            if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
            return true;
        }
        if (done < 0 && errno != EINTR) return true;
        if (clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// The errno of a failed exec, or 0 once exec closed the status pipe.
int ExecError(pipeEnds& execStatus)
{
    pipeEnds::CloseEnd(execStatus.write);
    int error = 0;
    ssize_t got;
    do {
        got = read(execStatus.read, &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

}  // namespace

std::string helperRun::EndText() const
{
    if (!started) return "could not be started: " + startFailure;
    if (timedOut) return "did not finish within its time-out and was killed with its process group";
    if (signal) return "was killed by signal " + std::to_string(signal);
    return "exited with status " + std::to_string(exitCode);
}

std::string helperRun::LastErrorLines(size_t lines) const
{
    size_t end = errorTail.size();
    while (end > 0 && errorTail[end - 1] == '\n') --end;
    size_t start = end;
    for (size_t found = 0; start > 0 && found < lines; --start)
        if (errorTail[start - 1] == '\n' && ++found == lines) break;
    std::string text;
    for (char c : errorTail.substr(start, end - start)) {
        if (c == '\n')
            text += " | ";
        else
            text += static_cast<unsigned char>(c) < ' ' || c == 0x7f ? ' ' : c;
    }
    if (text.size() > MAX_ERROR_TEXT) text = "..." + text.substr(text.size() - MAX_ERROR_TEXT);
    return text;
}

helperRun helperProcess::Run(const helperCall& call)
{
    helperRun run;
    const clock::time_point deadline =
        clock::now() + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(call.timeoutSeconds));
    std::vector<std::string> words = call.words;
    std::vector<std::string> environment = EnvironmentWith(call.environment);
    std::vector<char*> argv = PointersTo(words);
    std::vector<char*> envp = PointersTo(environment);
    pipeEnds in, out, err, execStatus;
    if (words.empty() || !in.Open() || !out.Open() || !err.Open() || !execStatus.Open()) {
        run.startFailure = words.empty() ? "no command" : std::strerror(errno);
        return run;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        run.startFailure = std::strerror(errno);
        return run;
    }
    if (pid == 0) BecomeHelper(argv.data(), envp.data(), in.read, out.write, err.write, execStatus.write, parent);
    setpgid(pid, pid);
    pipeEnds::CloseEnd(in.read);
    pipeEnds::CloseEnd(out.write);
    pipeEnds::CloseEnd(err.write);
    if (const int error = ExecError(execStatus)) {
        Reap(pid, clock::time_point::max(), run);
        run.startFailure = words.front() + ": " + std::strerror(error);
        return run;
    }
    run.started = true;
    if (!exchange(in, out, err, call, run).Run(deadline) || !Reap(pid, deadline, run)) {
        run.timedOut = true;
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return run;
}

}  // namespace markforge

#include "gnuplot.h"

#include "failure.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace gripperctl {

namespace {

[[noreturn]] void fail(const std::string &problem)
{
    throw Failure{ExitCode::LocalProblem, problem};
}

/// A file without a name. Unlike a pipe it never makes its writer wait for its reader.
class TemporaryFile
{
public:
    explicit TemporaryFile(const std::string &text = {})
        : m_file(std::tmpfile(), &std::fclose)
    {
        if (!m_file || std::fwrite(text.data(), 1, text.size(), m_file.get()) != text.size() ||
            std::fflush(m_file.get()) != 0)
            fail("cannot make a temporary file: " + std::generic_category().message(errno));
        std::rewind(m_file.get());
    }

    int descriptor() const { return ::fileno(m_file.get()); }

    std::string text() const
    {
        std::rewind(m_file.get());
        std::string all;
        std::array<char, 4096> part = {};
        while (const std::size_t size = std::fread(part.data(), 1, part.size(), m_file.get()))
            all.append(part.data(), size);
        return all;
    }

private:
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> m_file;
};

pid_t startGnuplot(int in, int out, int errors)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    std::string name = "gnuplot";
    const std::array<char *, 2> words{name.data(), nullptr};
    pid_t id = 0;
    const int error = posix_spawnp(&id, name.c_str(), &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        fail("cannot start gnuplot: install it with sudo apt install gnuplot-nox");
    return id;
}

std::string inOneLine(std::string text)
{
    for (char &character : text) {
        if (character == '\n')
            character = ' ';
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

} // namespace

std::string runGnuplot(const std::string &script)
{
    const TemporaryFile in(script);
    const TemporaryFile out;
    const TemporaryFile errors;
    const pid_t id = startGnuplot(in.descriptor(), out.descriptor(), errors.descriptor());
    int status = 0;
    while (::waitpid(id, &status, 0) == -1 && errno == EINTR)
        continue;
    const std::string picture = out.text();
    if (status != 0 || picture.empty())
        fail("gnuplot failed: " + inOneLine(errors.text()));
    return picture;
}

} // namespace gripperctl

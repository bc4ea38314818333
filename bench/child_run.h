// Benchmarks that compare thread counts run each configuration in a child
// process of their own, so that the process-wide pool and sessions start
// fresh: the child is this program again with "--child" and its arguments,
// and prints one line of key=value words.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace le::bench {

// Runs `self --child args...`, with `setup` run in the child before the
// exec (its environment, its standard error); returns its standard output.
// Throws when the child can't be started or doesn't exit with 0, naming
// `what` (the configuration) when given.
inline std::string runChild(const std::string& self, const std::vector<std::string>& args,
                            const std::function<void()>& setup, const std::string& what = "") {
  int fd[2];
  if (pipe(fd) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(fd[1], 1);
    close(fd[0]);
    close(fd[1]);
    setup();
    std::vector<char*> argv{const_cast<char*>(self.c_str()), const_cast<char*>("--child")};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(self.c_str(), argv.data());
    _exit(127);
  }
  close(fd[1]);
  std::fflush(stdout);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fd[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("a child run failed" + (what.empty() ? "" : " (" + what + ")"));
  return out;
}

// The key=value words of a child's line.
inline std::map<std::string, std::string> parseKeyValues(const std::string& line) {
  std::map<std::string, std::string> kv;
  std::istringstream in(line);
  for (std::string word; in >> word;)
    if (const size_t eq = word.find('='); eq != std::string::npos) kv[word.substr(0, eq)] = word.substr(eq + 1);
  return kv;
}

}  // namespace le::bench

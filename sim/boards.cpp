#include "boards.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/station.h"
#include "topology.h"

namespace sim {

PortSpec PortSpec::for_site(int site) {
  return PortSpec{site, board_devnode(site), board_link(site), board_tty_sys_path(site)};
}

Board::Board(Testbed& bed, PortSpec desc, int fd) : bed_(bed), spec_(std::move(desc)), fd_(fd) {}

std::string Board::received() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::vector<ReceivedLine> Board::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void Board::clear() {
  std::lock_guard lock(mutex_);
  bytes_.clear();
  partial_.clear();
  lines_.clear();
}

bool Board::wait_lines(size_t n, double timeoutSeconds) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                           [&] { return lines_.size() >= n; });
}

void Board::reply(const std::string& text) {
  // All of it, waiting (up to 2 s) while the library's queue is full, as a board would.
  size_t sent = 0;
  const double giveUp = now() + 2;
  while (sent < text.size() && now() < giveUp) {
    const int fd = fd_;
    if (fd < 0) return;
    const ssize_t n = write(fd, text.data() + sent, text.size() - sent);
    if (n > 0) {
      sent += static_cast<size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      return;
    } else {
      pollfd out{fd, POLLOUT, 0};
      poll(&out, 1, 10);
    }
  }
}

void Board::set_responder(Responder responder) {
  std::lock_guard lock(mutex_);
  responder_ = std::move(responder);
}

void Board::script_status(std::vector<std::string> replies) {
  auto next = std::make_shared<size_t>(0);
  set_responder(
      [replies = std::move(replies), next](const ReceivedLine& line) -> std::optional<std::string> {
        if (line.text != brakwell::station::kStatusQuery || replies.empty()) return std::nullopt;
        const size_t i = std::min(*next, replies.size() - 1);
        ++*next;
        return replies[i];
      });
}

void Board::unplug() {
  // /dev/null takes the place of the testbed's end: the pseudo-terminal's last master closes (the
  // port hangs up) while the testbed keeps a descriptor number that it may close later.
  const int fd = fd_.exchange(-1);
  if (fd >= 0) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
      dup2(null, fd);
      close(null);
    } else {
      close(fd);
    }
  }
  // The kernel hangs the port up a moment after its other end closes; an unplug is complete
  // once the library's end sees it.
  if (holdFd_ >= 0) {
    pollfd hung{holdFd_, POLLIN, 0};
    for (int i = 0; i < 100 && !(hung.revents & POLLHUP); ++i) poll(&hung, 1, 10);
  }
  bed_.trace("site" + std::to_string(spec_.site), "unplugged=1");
}

void Board::stop_reading() { reading_ = false; }
void Board::resume_reading() { reading_ = true; }

void Board::on_bytes(const char* data, size_t n) {
  const double t = now();
  std::vector<ReceivedLine> complete;
  Responder responder;
  {
    std::lock_guard lock(mutex_);
    bytes_.append(data, n);
    for (size_t i = 0; i < n; ++i) {
      partial_ += data[i];
      if (data[i] == '\n') {
        lines_.push_back({t, partial_});
        complete.push_back(lines_.back());
        partial_.clear();
      }
    }
    responder = responder_;
  }
  arrived_.notify_all();
  for (const auto& line : complete) {
    bed_.trace("site" + std::to_string(spec_.site), line.text);
    if (responder) {
      if (auto answer = responder(line)) reply(*answer);
    }
  }
}

Boards::Boards(Testbed& bed) : bed_(bed) {
  if (pipe2(wakePipe_, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
  reader_ = std::thread([this] { run(); });
}

Boards::~Boards() {
  stop_ = true;
  wake();
  reader_.join();
  for (auto& board : boards_) {
    if (board->holdFd_ >= 0) close(board->holdFd_);
  }
  close(wakePipe_[0]);
  close(wakePipe_[1]);
}

Board& Boards::add(const PortSpec& desc) {
  std::string record = "P: " + desc.sysPath + "\nN: " + desc.devnode.substr(5) +
                       "\nE: SUBSYSTEM=tty\nE: DEVNAME=" + desc.devnode + "\n";
  if (!desc.link.empty()) record += "E: DEVLINKS=" + desc.link + "\n";
  // A port below a USB interface (".../1-1.1.2:1.0/tty/ttyACM0") points at it, as the kernel's do.
  if (desc.sysPath.find("/tty/") != std::string::npos) record += "L: device=../..\n";
  bed_.add_from_string(record);
  if (!desc.link.empty()) bed_.add_dev_link(desc.link, desc.devnode.substr(5));
  const int fd = umockdev_testbed_get_dev_fd(bed_.raw(), desc.devnode.c_str());
  if (fd < 0) {
    std::fprintf(stderr, "sim: no pseudo-terminal for %s\n", desc.devnode.c_str());
    std::abort();
  }
  // The testbed's end must not block the reader thread. It stays the testbed's: closing it is
  // unplugging the board, and the testbed closes it at the end.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  // A program run inside the fixture must not inherit it, or the port could never hang up.
  fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
  // Keep the library's end open too, raw: a pseudo-terminal whose other end nobody holds reports
  // a hang-up at every poll, and a cooked one would echo the board's replies back to it.
  const int hold = open(desc.devnode.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (hold >= 0) {
    termios raw{};
    tcgetattr(hold, &raw);
    cfmakeraw(&raw);
    tcsetattr(hold, TCSANOW, &raw);
  }
  std::lock_guard lock(mutex_);
  boards_.push_back(std::unique_ptr<Board>(new Board(bed_, desc, fd)));
  boards_.back()->holdFd_ = hold;
  wake();
  return *boards_.back();
}

void Boards::add_sites(int first, int last) {
  for (int n = first; n <= last; ++n) add_site(n);
}

Board& Boards::site(int n) {
  std::lock_guard lock(mutex_);
  for (auto& board : boards_) {
    if (board->site() == n) return *board;
  }
  std::fprintf(stderr, "sim: no board for site %d\n", n);
  std::abort();
}

bool Boards::has_site(int n) const {
  auto& self = const_cast<Boards&>(*this);
  std::lock_guard lock(self.mutex_);
  for (auto& board : boards_) {
    if (board->site() == n) return true;
  }
  return false;
}

std::vector<Board*> Boards::all() {
  std::lock_guard lock(mutex_);
  std::vector<Board*> out;
  for (auto& board : boards_) out.push_back(board.get());
  return out;
}

void Boards::wake() {
  const char c = 1;
  (void)!write(wakePipe_[1], &c, 1);
}

void Boards::run() {
  while (!stop_) {
    std::vector<pollfd> fds{{wakePipe_[0], POLLIN, 0}};
    std::vector<Board*> owners{nullptr};
    {
      std::lock_guard lock(mutex_);
      for (auto& board : boards_) {
        const int fd = board->fd_;
        if (fd >= 0 && board->reading_) {
          fds.push_back({fd, POLLIN, 0});
          owners.push_back(board.get());
        }
      }
    }
    // A board that stopped reading is looked at again every 50 ms.
    if (poll(fds.data(), fds.size(), 50) <= 0) continue;
    if (fds[0].revents) {
      char drain[64];
      while (read(wakePipe_[0], drain, sizeof drain) > 0) {
      }
    }
    for (size_t i = 1; i < fds.size(); ++i) {
      if (!(fds[i].revents & POLLIN)) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) owners[i]->on_bytes(buf, static_cast<size_t>(n));
    }
  }
}

}  // namespace sim

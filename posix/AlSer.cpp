/*
 * AlSer.cpp (POSIX) - serial ports for SerSock (AlSock.h), on Linux's
 * termios2 so that any rate the driver can make is reachable (BOTHER with
 * the rate in c_ospeed) through one path for standard and other rates;
 * where the system lacks termios2, the classic calls with standard rates.
 *
 * The port is opened exclusive twice over: TIOCEXCL refuses later opens
 * (except by root), and an advisory flock refuses programs that take the
 * same lock, root among them. Settings are written and read back: drivers
 * silently keep what they cannot do (a pseudo-terminal always stays 8N1),
 * and a port that ignored a setting would talk nonsense rather than fail.
 *
 * Waits that the system would block in without a cancel (tcdrain, a
 * timed break) are made of short abortable waits instead: the output
 * queue is polled with TIOCOUTQ, the break held with TIOCSBRK/TIOCCBRK.
 */
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include "AlSock.h"
#include "AlSys.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekIoWait.h"

#ifndef BOTHER
#define BOTHER 0010000
#endif

/* The kernel's struct termios2, which TCGETS2 and TCSETS2 name
 * (asm/termbits.h cannot be included beside termios.h). */
struct termios2 {
    tcflag_t c_iflag;
    tcflag_t c_oflag;
    tcflag_t c_cflag;
    tcflag_t c_lflag;
    cc_t c_line;
    cc_t c_cc[19];
    speed_t c_ispeed;
    speed_t c_ospeed;
};

namespace {

using Termios2 = struct termios2;

constexpr tcflag_t kCfgBits = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS;
constexpr tcflag_t kFlowIn = IXON | IXOFF;

vek_s32 ser_error(int e) {
    errno = e;
    switch (e) {
    case EIO:
    case ENXIO:
    case ENODEV:
        return VEK_ERR_DEV_GONE;
    case ENOTTY:
    case EINVAL:
        return VEK_ERR_UNSUPPORTED;
    default:
        return VEK_ERR_IO;
    }
}

int fd_of(const plat::SockSys* s) {
    return (int)s->h;
}

/* The classic termios calls stand in where the system has no termios2
 * (user-mode emulators such as qemu-user answer ENOSYS): the same flags,
 * and only the standard rates. */
const struct {
    speed_t code;
    speed_t rate;
} kRates[] = {{B50, 50},           {B75, 75},           {B110, 110},         {B134, 134},         {B150, 150},
              {B200, 200},         {B300, 300},         {B600, 600},         {B1200, 1200},       {B1800, 1800},
              {B2400, 2400},       {B4800, 4800},       {B9600, 9600},       {B19200, 19200},     {B38400, 38400},
              {B57600, 57600},     {B115200, 115200},   {B230400, 230400},   {B460800, 460800},   {B500000, 500000},
              {B576000, 576000},   {B921600, 921600},   {B1000000, 1000000}, {B1152000, 1152000}, {B1500000, 1500000},
              {B2000000, 2000000}, {B2500000, 2500000}, {B3000000, 3000000}, {B3500000, 3500000}, {B4000000, 4000000}};

speed_t rate_of(speed_t code) {
    for (const auto& r : kRates) {
        if (r.code == code) {
            return r.rate;
        }
    }
    return 0;
}

bool get2(int fd, Termios2* t) {
    if (plat::sys_ioctl(fd, TCGETS2, t) == 0) {
        return true;
    }
    struct termios c;
    if (errno != ENOSYS || tcgetattr(fd, &c) != 0) {
        return false;
    }
    t->c_iflag = c.c_iflag;
    t->c_oflag = c.c_oflag;
    t->c_cflag = c.c_cflag;
    t->c_lflag = c.c_lflag;
    t->c_line = c.c_line;
    std::copy_n(c.c_cc, std::min(sizeof t->c_cc, sizeof c.c_cc), t->c_cc);
    t->c_ispeed = rate_of(cfgetispeed(&c));
    t->c_ospeed = rate_of(cfgetospeed(&c));
    return true;
}

bool set2(int fd, const Termios2* t) {
    if (plat::sys_ioctl(fd, TCSETS2, t) == 0) {
        return true;
    }
    struct termios c;
    if (errno != ENOSYS || tcgetattr(fd, &c) != 0) {
        return false;
    }
    const auto* r = std::find_if(std::begin(kRates), std::end(kRates), [&](const auto& k) { return k.rate == t->c_ospeed; });
    if (r == std::end(kRates)) {
        errno = EINVAL;  // a rate only termios2 can name
        return false;
    }
    c.c_iflag = t->c_iflag;
    c.c_oflag = t->c_oflag;
    c.c_cflag = t->c_cflag & ~(tcflag_t)(CBAUD | (CBAUD << 16));
    c.c_lflag = t->c_lflag;
    std::copy_n(t->c_cc, std::min(sizeof t->c_cc, sizeof c.c_cc), c.c_cc);
    return cfsetspeed(&c, r->code) == 0 && tcsetattr(fd, TCSANOW, &c) == 0;
}

/* The rate the driver made is the one asked for within 2% (what a UART
 * tolerates; drivers round to their divisors). */
bool rate_close(speed_t got, vek_s32 want) {
    return std::labs((long)got - (long)want) * 50 <= (long)want;
}

} // namespace

namespace plat {

vek_s32 ser_open(const char* path, SockSys* out) {
    int fd = sys_open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        errno = e;
        return e == ENOENT || e == ENODEV || e == ENXIO ? VEK_ERR_NOT_FOUND : e == EBUSY ? VEK_ERR_BUSY : VEK_ERR_IO;
    }
    Termios2 t;
    if (!get2(fd, &t)) {
        int e = errno;
        close(fd);
        errno = e;
        return VEK_ERR_UNSUPPORTED;  // not a terminal
    }
    if (sys_flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return e == EWOULDBLOCK ? VEK_ERR_BUSY : VEK_ERR_IO;
    }
    ioctl(fd, TIOCEXCL);
    out->h = fd;
    out->dev = true;
    return 0;
}

vek_s32 ser_set(SockSys* s, const VekSerCfg* cfg) {
    int fd = fd_of(s);
    Termios2 old, t;
    if (!get2(fd, &old)) {
        return ser_error(errno);
    }
    t = old;
    // Raw: bytes pass unchanged, no echo, no signals, no line editing.
    t.c_iflag &= ~(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXANY | INPCK | kFlowIn);
    t.c_oflag &= ~OPOST;
    t.c_lflag &= ~(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    t.c_cflag &= ~(kCfgBits | CBAUD | (CBAUD << 16));
    t.c_cflag |= CREAD | CLOCAL | BOTHER | (BOTHER << 16);
    static const tcflag_t kSize[] = {CS5, CS6, CS7, CS8};
    t.c_cflag |= kSize[cfg->dataBits - 5];
    if (cfg->parity != VEK_PAR_NONE) {
        t.c_cflag |= PARENB | (cfg->parity == VEK_PAR_ODD ? PARODD : 0);
        t.c_iflag |= INPCK;
    }
    if (cfg->stopBits == 2) {
        t.c_cflag |= CSTOPB;
    }
    if (cfg->flow == VEK_FLOW_RTSCTS) {
        t.c_cflag |= CRTSCTS;
    } else if (cfg->flow == VEK_FLOW_XONXOFF) {
        t.c_iflag |= kFlowIn;
    }
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    t.c_ispeed = t.c_ospeed = (speed_t)cfg->baud;
    if (!set2(fd, &t)) {
        int e = errno;
        set2(fd, &old);
        return e == EINVAL ? VEK_ERR_BAD_SETTING : ser_error(e);
    }
    Termios2 back;
    if (!get2(fd, &back)) {
        return ser_error(errno);
    }
    if ((back.c_cflag & kCfgBits) != (t.c_cflag & kCfgBits) || (back.c_iflag & kFlowIn) != (t.c_iflag & kFlowIn) ||
        !rate_close(back.c_ospeed, cfg->baud)) {
        set2(fd, &old);
        return VEK_ERR_BAD_SETTING;
    }
    return 0;
}

vek_s32 ser_get(SockSys* s, VekSerCfg* cfg) {
    Termios2 t;
    if (!get2(fd_of(s), &t)) {
        return ser_error(errno);
    }
    cfg->baud = (vek_s32)t.c_ospeed;
    switch (t.c_cflag & CSIZE) {
    case CS5:
        cfg->dataBits = 5;
        break;
    case CS6:
        cfg->dataBits = 6;
        break;
    case CS7:
        cfg->dataBits = 7;
        break;
    default:
        cfg->dataBits = 8;
    }
    cfg->parity = !(t.c_cflag & PARENB) ? VEK_PAR_NONE : (t.c_cflag & PARODD) ? VEK_PAR_ODD : VEK_PAR_EVEN;
    cfg->stopBits = (t.c_cflag & CSTOPB) ? 2 : 1;
    cfg->flow = (t.c_cflag & CRTSCTS) ? VEK_FLOW_RTSCTS : (t.c_iflag & IXON) ? VEK_FLOW_XONXOFF : VEK_FLOW_NONE;
    return 0;
}

vek_s32 ser_drain(SockSys* s, vek_s32 tmo) {
    int fd = fd_of(s);
    vek_u32 start = vek_msec();
    for (;;) {
        int queued = 0;
        if (sys_ioctl(fd, TIOCOUTQ, &queued) != 0) {
            return ser_error(errno);
        }
        if (queued == 0) {
            // Only the transmitter's last byte can be left: tcdrain waits a
            // character time at most.
            return sys_tcdrain(fd) == 0 ? 0 : ser_error(errno);
        }
        vek_s32 left = vek::ms_left(start, tmo);
        if (left == 0) {
            return VEK_ERR_TIMEOUT;
        }
        vek_s32 w = vek_fd_swait(fd, 0, left < 0 ? 10 : std::min<vek_s32>(left, 10), 0);
        if (w > 0 && (w & (VEK_FD_HUP | VEK_FD_ERR | VEK_FD_NVAL))) {
            return VEK_ERR_DEV_GONE;
        }
        if (w < 0 && w != VEK_ERR_TIMEOUT) {
            return w;
        }
    }
}

vek_s32 ser_purge(SockSys* s, vek_s32 what) {
    if (what == 0) {
        return 0;
    }
    int q = what == (VEK_PURGE_IN | VEK_PURGE_OUT) ? TCIOFLUSH : what == VEK_PURGE_IN ? TCIFLUSH : TCOFLUSH;
    return sys_tcflush(fd_of(s), q) == 0 ? 0 : ser_error(errno);
}

vek_s32 ser_set_lines(SockSys* s, vek_s32 mask, vek_s32 values) {
    int on = 0, off = 0;
    if (mask & VEK_LINE_DTR) {
        ((values & VEK_LINE_DTR) ? on : off) |= TIOCM_DTR;
    }
    if (mask & VEK_LINE_RTS) {
        ((values & VEK_LINE_RTS) ? on : off) |= TIOCM_RTS;
    }
    int fd = fd_of(s);
    if ((on && sys_ioctl(fd, TIOCMBIS, &on) != 0) || (off && sys_ioctl(fd, TIOCMBIC, &off) != 0)) {
        return ser_error(errno);
    }
    if (!on && !off) {
        int cur;
        if (sys_ioctl(fd, TIOCMGET, &cur) != 0) {  // nothing to change: still tell whether the lines exist
            return ser_error(errno);
        }
    }
    return 0;
}

vek_s32 ser_get_lines(SockSys* s) {
    int m = 0;
    if (sys_ioctl(fd_of(s), TIOCMGET, &m) != 0) {
        return ser_error(errno);
    }
    static const struct {
        int tio;
        vek_s32 line;
    } kMap[] = {{TIOCM_DTR, VEK_LINE_DTR}, {TIOCM_RTS, VEK_LINE_RTS}, {TIOCM_CTS, VEK_LINE_CTS},
                {TIOCM_DSR, VEK_LINE_DSR}, {TIOCM_CAR, VEK_LINE_DCD}, {TIOCM_RNG, VEK_LINE_RI}};
    vek_s32 lines = 0;
    for (const auto& m2 : kMap) {
        if (m & m2.tio) {
            lines |= m2.line;
        }
    }
    return lines;
}

vek_s32 ser_break(SockSys* s, vek_s32 ms) {
    int fd = fd_of(s);
    if (sys_ioctl(fd, TIOCSBRK) != 0) {
        return ser_error(errno);
    }
    vek_s32 w = vek_fd_swait(-1, 0, ms == 0 ? 250 : ms, 0);
    ioctl(fd, TIOCCBRK);  // the line is always given back, also after a cancel
    return w == VEK_ERR_TIMEOUT ? 0 : w < 0 ? w : 0;
}

} // namespace plat

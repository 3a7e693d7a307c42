#include "Platform/TerminationSignals.h"

#include "Audio/EQLog.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace sorva {

namespace {

// The write end of the one live instance's pipe; read by the handler.
volatile sig_atomic_t writeEnd = -1;

extern "C" void onTerminationSignal(int signalNumber)
{
    int savedErrno = errno;
    auto byte = static_cast<unsigned char>(signalNumber);
    // A full pipe means a shut-down is already pending; the byte can be lost.
    [[maybe_unused]] auto written = ::write(writeEnd, &byte, 1);
    errno = savedErrno;
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent)
{
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        auto reason = std::string(std::strerror(errno));
        EQLog::trace([reason] { return "cannot watch for termination signals: " + reason; });
        return;
    }
    writeEnd = pipeFds[1];

    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    // Restart interrupted system calls: other threads of the program (audio
    // backend, log writer) must not see EINTR because of us.
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &previousInt);
    sigaction(SIGTERM, &action, &previousTerm);
    installed = true;

    notifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &TerminationSignals::drain);
}

TerminationSignals::~TerminationSignals()
{
    if (installed) {
        sigaction(SIGINT, &previousInt, nullptr);
        sigaction(SIGTERM, &previousTerm, nullptr);
        writeEnd = -1;
    }
    delete notifier;
    for (int fd : pipeFds)
        if (fd >= 0)
            ::close(fd);
}

void TerminationSignals::drain()
{
    unsigned char bytes[16];
    for (;;) {
        auto count = ::read(pipeFds[0], bytes, sizeof bytes);
        if (count <= 0)
            return;
        for (ssize_t i = 0; i < count; ++i)
            emit received(bytes[i]);
    }
}

} // namespace sorva

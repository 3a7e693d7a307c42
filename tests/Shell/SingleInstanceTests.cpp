// One program per user: a later launch reaches the running one, and a socket
// left by a crashed one does not block the next start.
#include "App/SingleInstance.h"

#include "Views/ViewsTestSupport.h"

#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <future>

namespace sorva {
namespace {

using namespace std::chrono_literals;

// A second launch runs in its own process; here its request runs on another
// thread while this one serves the first instance's event loop.
std::future<bool> askFromAnotherThread(const QString& path)
{
    return std::async(std::launch::async, [path] { return SingleInstance::askRunningInstance(path, 5000); });
}

TEST(SingleInstanceTests, LaterLaunchOpensTheRunningPanelAndStaleSocketsAreTakenOver)
{
    testing::viewsApp();
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const QString path = folder.filePath(QStringLiteral("sorva-test.instance"));

    // What a crash leaves: the socket file, bound once, with nobody behind it.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const QByteArray bytes = path.toLocal8Bit();
    std::memcpy(address.sun_path, bytes.constData(), static_cast<size_t>(bytes.size()));
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    EXPECT_FALSE(SingleInstance::askRunningInstance(path, 500));

    SingleInstance first;
    int opened = 0;
    QObject::connect(&first, &SingleInstance::openPanelRequested, [&opened] { ++opened; });
    ASSERT_EQ(first.listen(path), SingleInstance::Outcome::listening);

    std::future<bool> asked = askFromAnotherThread(path);
    ASSERT_TRUE(testing::processEventsUntil([&] { return asked.wait_for(0s) == std::future_status::ready; }, 10s));
    EXPECT_TRUE(asked.get());
    EXPECT_EQ(opened, 1);

    // A second instance that starts anyway (its own thread with an event
    // loop, like its own process) must not take the live socket over: it
    // finds the first and asks it too.
    std::atomic<int> outcome { -1 };
    QThread* launch = QThread::create([&outcome, &path] {
        SingleInstance second;
        outcome = static_cast<int>(second.listen(path));
    });
    launch->start();
    ASSERT_TRUE(testing::processEventsUntil([&] { return launch->isFinished(); }, 10s));
    delete launch;
    EXPECT_EQ(outcome.load(), static_cast<int>(SingleInstance::Outcome::anotherInstance));
    EXPECT_EQ(opened, 2);
}

} // namespace
} // namespace sorva

#include "App/SingleInstance.h"

#include "Audio/EQLog.h"
#include "Platform/TempDirectory.h"

#include <QByteArray>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace sorva {

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent)
{
}

SingleInstance::~SingleInstance()
{
    if (server)
        server->close();
    if (lockFd >= 0)
        ::close(lockFd);
}

QString SingleInstance::socketPath()
{
    const QString name = QStringLiteral("sorva-%1.instance").arg(static_cast<qulonglong>(::getuid()));
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && runtime[0] == '/')
        return QDir(QString::fromLocal8Bit(runtime)).filePath(name);
    if (auto folder = perUserTemporaryDirectory())
        return QDir(QString::fromStdString(folder->string())).filePath(name);
    return {};
}

bool SingleInstance::askRunningInstance(const QString& path, int timeoutMs)
{
    if (path.isEmpty())
        return false;
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(timeoutMs))
        return false;
    socket.write(openPanelRequest);
    if (!socket.waitForBytesWritten(timeoutMs))
        return false;
    // The answer proves that a live instance read the request, not just that
    // the kernel accepted the connection.
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(timeoutMs))
            return false;
    }
    return socket.readLine() == acknowledgement;
}

SingleInstance::Outcome SingleInstance::listen(const QString& path)
{
    if (path.isEmpty())
        return Outcome::unavailable;
    const QByteArray lockPath = (path + QStringLiteral(".lock")).toLocal8Bit();
    lockFd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd < 0) {
        EQLog::trace("cannot open " + lockPath.toStdString() + ": " + std::strerror(errno));
        return Outcome::unavailable;
    }
    if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        ::close(lockFd);
        lockFd = -1;
        // The holder may still be starting: give it a few seconds to listen.
        for (int attempt = 0; attempt < 10; ++attempt) {
            if (askRunningInstance(path, 500))
                return Outcome::anotherInstance;
            QThread::msleep(200);
        }
        EQLog::trace("another instance holds " + lockPath.toStdString() + " but does not answer");
        return Outcome::unavailable;
    }
    // The lock is ours: whatever socket is there was left by a crash.
    QLocalServer::removeServer(path);
    server = new QLocalServer(this);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    connect(server, &QLocalServer::newConnection, this, &SingleInstance::acceptConnections);
    if (server->listen(path))
        return Outcome::listening;
    EQLog::trace("cannot listen for other launches at " + path.toStdString() + ": "
        + server->errorString().toStdString());
    return Outcome::unavailable;
}

void SingleInstance::acceptConnections()
{
    while (QLocalSocket* socket = server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            while (socket->canReadLine()) {
                if (socket->readLine() == openPanelRequest) {
                    socket->write(acknowledgement);
                    socket->flush();
                    emit openPanelRequested();
                }
            }
        });
    }
}

} // namespace sorva

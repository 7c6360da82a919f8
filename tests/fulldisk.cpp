#include "fulldisk.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {
const char* const FILLER = "/filler";
}

TmpfsMount::~TmpfsMount()
{
    if (mMounted) {
        makeRoom();
        // Lazy: a file still open somewhere must not keep the folder mounted.
        ::umount2(QFile::encodeName(mDir->path()).constData(), MNT_DETACH);
    }
}

bool TmpfsMount::canMount()
{
    return ::geteuid() == 0;
}

bool TmpfsMount::mount(qint64 bytes)
{
    mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/arbo-tmpfs-XXXXXX"));
    const QByteArray options = "size=" + QByteArray::number(bytes) + ",mode=0755";
    if (::mount("tmpfs", QFile::encodeName(mDir->path()).constData(), "tmpfs", 0,
                options.constData()) != 0) {
        mError = QStringLiteral("mounting a tmpfs on %1 failed: %2")
                     .arg(mDir->path(), QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    mMounted = true;
    return true;
}

QString TmpfsMount::path() const
{
    return mDir ? mDir->path() : QString();
}

bool fillFileSystem(const QString& fillerPath, QString* error)
{
    const int fd =
        ::open(QFile::encodeName(fillerPath).constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) {
        if (error) {
            *error = QStringLiteral("cannot create the filler: %1")
                         .arg(QString::fromLocal8Bit(std::strerror(errno)));
        }
        return false;
    }
    const QByteArray chunk(4096, 'x');
    int failure = 0;
    // Page-sized writes until one fails for lack of space, then single bytes
    // for what is left of the last page.
    for (int size : {4096, 1}) {
        while (::write(fd, chunk.constData(), size_t(size)) > 0) {
        }
        failure = errno;
        if (failure != ENOSPC) {
            break;
        }
    }
    ::close(fd);
    if (failure != ENOSPC) {
        if (error) {
            *error = QStringLiteral("filling the file system ended with \"%1\", not with a full "
                                    "disk")
                         .arg(QString::fromLocal8Bit(std::strerror(failure)));
        }
        return false;
    }
    return true;
}

bool TmpfsMount::fill()
{
    return fillFileSystem(path() + FILLER, &mError);
}

void TmpfsMount::makeRoom()
{
    QFile::remove(path() + FILLER);
}

bool TmpfsMount::setReadOnly(bool readOnly)
{
    const unsigned long flags = MS_REMOUNT | (readOnly ? MS_RDONLY : 0);
    if (::mount("tmpfs", QFile::encodeName(path()).constData(), "tmpfs", flags, nullptr) != 0) {
        mError = QStringLiteral("remounting %1 failed: %2")
                     .arg(path(), QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

FileSizeLimit::FileSizeLimit(rlim_t bytes)
{
    if (::getrlimit(RLIMIT_FSIZE, &mPrevious) != 0) {
        return;
    }
    struct rlimit limit = mPrevious;
    limit.rlim_cur = bytes;
    mPreviousHandler = std::signal(SIGXFSZ, SIG_IGN);
    mActive = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

FileSizeLimit::~FileSizeLimit()
{
    if (mActive) {
        ::setrlimit(RLIMIT_FSIZE, &mPrevious);
    }
    std::signal(SIGXFSZ, mPreviousHandler);
}

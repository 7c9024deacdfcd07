#include "media/usbburn.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QPointer>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include "core/util.h"
#include "iso/bootsetup.h"
#include "iso/eltorito.h"
#include "iso/extraction.h"
#include "iso/isojobs.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace UsbBurn {

constexpr qint64 kCopyChunk = 1 << 20;

namespace {

constexpr qint64 kChunk = kCopyChunk;

// SHA-256 through libcrypto, which uses the processor's SHA instructions
// where there are any: several times faster than a portable implementation,
// and the verification hashes every byte twice.
class Sha256 final
{
public:
    Sha256() : m_context(EVP_MD_CTX_new()) { EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr); }
    ~Sha256() { EVP_MD_CTX_free(m_context); }
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void addData(QByteArrayView data)
    {
        EVP_DigestUpdate(m_context, data.data(), size_t(data.size()));
    }
    QByteArray result()
    {
        QByteArray digest(EVP_MAX_MD_SIZE, '\0');
        unsigned int length = 0;
        EVP_DigestFinal_ex(m_context, reinterpret_cast<unsigned char*>(digest.data()), &length);
        digest.resize(int(length));
        return digest;
    }

private:
    EVP_MD_CTX* m_context;
};

// The hash of a file on the stick, and the size actually read (-1 when the
// file cannot be opened).
struct FileHash
{
    qint64 size = -1;
    QByteArray sha256;
};

FileHash hashFile(const QString& path, const std::function<bool()>& stopped)
{
    FileHash result;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return result;
    Sha256 hash;
    QByteArray buffer(kChunk, Qt::Uninitialized);
    result.size = 0;
    while (!stopped()) {
        const qint64 got = file.read(buffer.data(), buffer.size());
        if (got < 0) {
            result.size = -1;
            return result;
        }
        if (got == 0)
            break;
        hash.addData(QByteArrayView(buffer.constData(), got));
        result.size += got;
    }
    result.sha256 = hash.result();
    return result;
}

// Reads exactly `size` bytes from the stream into the hash; false when the
// stream ends first.
bool hashStream(QIODevice& stream, qint64 size, Sha256& hash, QByteArray& buffer,
                const std::function<void(qint64)>& consumed, const std::atomic<bool>& stop)
{
    while (size > 0) {
        if (stop.load())
            return false;
        if (stream.bytesAvailable() <= 0 && !stream.waitForReadyRead(-1) &&
            stream.bytesAvailable() <= 0 && stream.atEnd())
            return false;
        const qint64 got = stream.read(buffer.data(), qMin<qint64>(size, buffer.size()));
        if (got < 0)
            return false;
        if (got == 0) {
            if (!stream.waitForReadyRead(-1) && stream.bytesAvailable() <= 0)
                return false;
            continue;
        }
        hash.addData(QByteArrayView(buffer.constData(), got));
        size -= got;
        consumed(got);
    }
    return true;
}

} // namespace

// Reads the image once, as the user, in large blocks, hashes every block and
// writes it into one pipe per stick, whose read end is that stick's helper's
// standard input. While a stick is slower than the image its pipe is full and
// the feeder waits, so a slow stick holds the others back only as far as
// their pipes hold. A pipe whose helper ended is closed and left out from
// then on; the others go on.
class ImageFeeder final
{
public:
    ImageFeeder(const QString& image, qint64 size, int outputs = 1)
        : m_size(size), m_outputs(size_t(outputs))
    {
        m_image = ::open(QFile::encodeName(image).constData(), O_RDONLY | O_CLOEXEC);
        if (m_image < 0) {
            m_problem = QStringLiteral("the image could not be opened: %1.")
                            .arg(QString::fromLocal8Bit(std::strerror(errno)));
            return;
        }
        ::posix_fadvise(m_image, 0, 0, POSIX_FADV_SEQUENTIAL);
        for (Output& output : m_outputs) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0) {
                m_problem = QStringLiteral("no pipe to the helper could be made: %1.")
                                .arg(QString::fromLocal8Bit(std::strerror(errno)));
                return;
            }
            output.read = ends[0];
            output.write = ends[1];
            // A larger pipe means fewer switches between Brenta and the helper;
            // the system may refuse it.
            ::fcntl(output.write, F_SETPIPE_SZ, kPipeBytes);
            ::fcntl(output.write, F_SETFL, ::fcntl(output.write, F_GETFL) | O_NONBLOCK);
        }
    }

    ~ImageFeeder()
    {
        Finish();
        if (m_image >= 0)
            ::close(m_image);
        for (Output& output : m_outputs) {
            for (int descriptor : {output.read, output.write}) {
                if (descriptor >= 0)
                    ::close(descriptor);
            }
        }
    }

    ImageFeeder(const ImageFeeder&) = delete;
    ImageFeeder& operator=(const ImageFeeder&) = delete;

    // Why it cannot start; empty when it can.
    QString Problem() const { return m_problem; }

    // A pipe's read end, for a helper's standard input; the caller owns it.
    int TakeReadEnd(int output = 0) { return std::exchange(m_outputs[size_t(output)].read, -1); }

    void Start()
    {
        if (m_problem.isEmpty() && !m_thread.joinable())
            m_thread = std::thread(&ImageFeeder::Run, this);
    }

    // Stops waiting for readers that no longer read and waits for the end.
    void Finish()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

    // The bytes given to one helper so far; once they are the image's size,
    // Sha256Hex() is final.
    qint64 Fed(int output = 0) const { return m_outputs[size_t(output)].fed; }
    // Reading the image failed, in plain words; empty when it did not.
    QString Error() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_error;
    }
    // The hash of the whole image in lower-case hex, once all of it was read.
    QByteArray Sha256Hex() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sha256;
    }

private:
    static constexpr qint64 kBlock = 4 << 20;
    static constexpr int kPipeBytes = 1 << 20;
    static constexpr int kWaitMs = 100;

    struct Output
    {
        int read = -1;
        int write = -1;
        std::atomic<qint64> fed{0};
    };

    void Run()
    {
        // A helper that ended early makes the next write fail with EPIPE
        // instead of ending Brenta.
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);

        Sha256 hash;
        std::vector<char> buffer(kBlock);
        qint64 read = 0;
        QString error;
        const auto feeding = [this] {
            return std::any_of(m_outputs.begin(), m_outputs.end(),
                               [](const Output& output) { return output.write >= 0; });
        };
        while (read < m_size && feeding()) {
            const qint64 block = qMin(kBlock, m_size - read);
            qint64 got = 0;
            while (got < block && error.isEmpty()) {
                const ssize_t n = ::read(m_image, buffer.data() + got, size_t(block - got));
                if (n > 0)
                    got += n;
                else if (n == 0)
                    error = QStringLiteral("the image ended after %1 of %2 bytes; it changed "
                                           "after it was checked.")
                                .arg(read + got)
                                .arg(m_size);
                else if (errno != EINTR)
                    error = QStringLiteral("the image could not be read after %1 bytes: %2.")
                                .arg(read + got)
                                .arg(QString::fromLocal8Bit(std::strerror(errno)));
            }
            if (!error.isEmpty()) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_error = error;
                break;
            }
            hash.addData(QByteArrayView(buffer.data(), got));
            read += got;
            // Final before the last bytes reach any helper, so that a helper
            // that read them all finds it.
            if (read == m_size) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_sha256 = hash.result().toHex();
            }
            for (Output& output : m_outputs) {
                if (output.write >= 0 && !Write(output, buffer.data(), got))
                    Close(output);
            }
        }
        // A helper reads exactly the image's size; an early end is its end of input.
        for (Output& output : m_outputs)
            Close(output);
    }

    static void Close(Output& output)
    {
        if (output.write >= 0)
            ::close(output.write);
        output.write = -1;
    }

    // False when the helper stopped reading or the feeder was stopped.
    bool Write(Output& output, const char* data, qint64 size)
    {
        while (size > 0) {
            const ssize_t n = ::write(output.write, data, size_t(size));
            if (n > 0) {
                data += n;
                size -= n;
                output.fed += n;
            } else if (n < 0 && errno == EAGAIN) {
                if (m_stop)
                    return false;
                pollfd writable{output.write, POLLOUT, 0};
                ::poll(&writable, 1, kWaitMs);
            } else if (n < 0 && errno != EINTR) {
                return false; // the helper ended; it says why
            }
        }
        return true;
    }

    qint64 m_size;
    int m_image = -1;
    std::vector<Output> m_outputs;
    QString m_problem;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    QString m_error;
    QByteArray m_sha256;
};

void TechnicalListing::Read(const QString& text)
{
    QString line = text;
    while (line.endsWith(QLatin1Char('\n')) || line.endsWith(QLatin1Char('\r')))
        line.chop(1);
    if (!m_inEntries) {
        m_inEntries = line.startsWith(QLatin1String("----------"));
        return;
    }
    // "Key = value"; an empty value may come without the trailing space.
    QString key = line;
    QString value;
    const int equals = line.indexOf(QLatin1String(" = "));
    if (equals > 0) {
        key = line.left(equals);
        value = line.mid(equals + 3);
    } else if (line.endsWith(QLatin1String(" ="))) {
        key = line.chopped(2);
    }
    if (key == QLatin1String("Path")) {
        m_entries.push_back(ImageEntry{value, false, 0, QString(), QString()});
        return;
    }
    if (m_entries.empty())
        return;
    ImageEntry& entry = m_entries.back();
    if (key == QLatin1String("Folder"))
        entry.folder = value == QLatin1String("+");
    else if (key == QLatin1String("Size"))
        entry.size = value.toLongLong();
    else if (key == QLatin1String("Mode"))
        entry.mode = value.trimmed();
    else if (key == QLatin1String("Symbolic Link"))
        entry.link = value;
}

bool TechnicalListing::HasUnixModes() const
{
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [](const ImageEntry& entry) { return !entry.mode.isEmpty(); });
}

QString ResolveLink(const QString& link, const QString& target,
                    const QHash<QString, QString>& links, const QSet<QString>& present)
{
    QString from = link;
    QString to = target;
    // Enough for any sensible chain; a circle ends here too.
    for (int hop = 0; hop < 16; ++hop) {
        if (to.isEmpty() || to.startsWith(QLatin1Char('/')))
            return QString();
        const QString folder = QFileInfo(from).path();
        const QString joined =
            QDir::cleanPath(folder == QLatin1String(".") ? to : folder + QLatin1Char('/') + to);
        if (joined == QLatin1String(".") || joined == QLatin1String("..") ||
            joined.startsWith(QLatin1String("../")))
            return QString();
        const auto next = links.constFind(joined);
        if (next != links.constEnd()) {
            from = joined;
            to = next.value();
            continue;
        }
        if (!present.contains(joined) || link.startsWith(joined + QLatin1Char('/')))
            return QString();
        return joined;
    }
    return QString();
}

QStringList SplitArguments(const QString& wim, const QString& firstPart, qint64 fatFileLimit)
{
    const qint64 partMiB = std::clamp<qint64>(fatFileLimit / 2 / (1 << 20), 1, 3800);
    return {QStringLiteral("split"), wim, firstPart, QString::number(partMiB)};
}

QStringList PrepareArguments(const QString& device, UsbPlan::Scheme scheme, UsbPlan::FileSystem fs,
                             const QString& label)
{
    QStringList arguments{QStringLiteral("prepare"),
                          device,
                          QStringLiteral("--scheme"),
                          scheme == UsbPlan::Scheme::Gpt ? QStringLiteral("gpt")
                                                         : QStringLiteral("mbr"),
                          QStringLiteral("--fs"),
                          UsbPlan::Name(fs).toLower()};
    if (!label.isEmpty())
        arguments << QStringLiteral("--label") << label;
    return arguments;
}

void ReadHelperLine(const QString& line, HelperReport& report)
{
    if (line.startsWith(QLatin1String("mounted: ")))
        report.mounted = line.mid(9).trimmed();
    else if (line.startsWith(QLatin1String("error: ")))
        report.error = line.mid(7).trimmed();
    else if (line.startsWith(QLatin1String("refused: ")))
        report.error = QStringLiteral("the stick was refused: ") + line.mid(9).trimmed();
    else if (line.startsWith(QLatin1String("written: ")) ||
             line.startsWith(QLatin1String("read: ")))
        report.done = line.section(QLatin1Char(' '), 1, 1).toLongLong();
    else if (line.startsWith(QLatin1String("sha256: ")))
        report.sha256 = line.mid(8).trimmed();
}

QByteArray PublishedSha256(const QByteArray& text, const QString& name, bool bare)
{
    const auto isHash = [](const QByteArray& word) {
        return word.size() == 64 && std::all_of(word.begin(), word.end(), [](char c) {
                   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
                          (c >= 'A' && c <= 'F');
               });
    };
    const QByteArray wanted = QFile::encodeName(name);
    const auto names = [&wanted](QByteArray listed) {
        if (listed.startsWith("./"))
            listed = listed.mid(2);
        return listed == wanted;
    };
    for (QByteArray line : text.split('\n')) {
        if (line.endsWith('\r'))
            line.chop(1);
        const QByteArray hash = line.left(64);
        if (bare && isHash(line.trimmed()))
            return line.trimmed().toLower();
        if (isHash(hash) && line.size() > 66 && line.at(64) == ' ' &&
            (line.at(65) == ' ' || line.at(65) == '*') && names(line.mid(66)))
            return hash.toLower();
        static const QByteArray kBsd = "SHA256 (";
        const int equals = line.lastIndexOf(") = ");
        if (line.startsWith(kBsd) && equals > kBsd.size() && isHash(line.mid(equals + 4)) &&
            names(line.mid(kBsd.size(), equals - kBsd.size())))
            return line.mid(equals + 4).toLower();
    }
    return QByteArray();
}

PublishedChecksum FindPublishedChecksum(const QString& image)
{
    // Checksum files are a few lines; a larger file is not one.
    constexpr qint64 kMostBytes = 1 << 20;
    const QFileInfo info(image);
    const QString name = info.fileName();
    const struct
    {
        QString file;
        bool bare;
    } candidates[] = {{name + QStringLiteral(".sha256"), true},
                      {name + QStringLiteral(".sha256sum"), true},
                      {QStringLiteral("SHA256SUMS"), false}};
    for (const auto& candidate : candidates) {
        QFile file(info.dir().filePath(candidate.file));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray sha256 = PublishedSha256(file.read(kMostBytes), name, candidate.bare);
        if (!sha256.isEmpty())
            return PublishedChecksum{candidate.file, sha256};
    }
    return PublishedChecksum();
}

QString TransferText(qint64 done, qint64 total, qint64 elapsedMs)
{
    QString text = QStringLiteral("%1 of %2").arg(Util::FormatSize(done), Util::FormatSize(total));
    if (done <= 0 || elapsedMs <= 0)
        return text;
    const double perSecond = double(done) * 1000.0 / double(elapsedMs);
    const qint64 secondsLeft = qint64(double(total - done) / perSecond + 0.5);
    text += QStringLiteral(", %1/s").arg(Util::FormatSize(qint64(perSecond)));
    if (done >= total)
        return text;
    return text + QStringLiteral(", ") + Util::FormatTimeLeft(secondsLeft);
}

VerifyResult Verify(QIODevice& stream, const std::vector<Listing::FileSpan>& files,
                    const QString& root, const QStringList& skipped,
                    const std::function<void(qint64)>& progress, const std::atomic<bool>& stop)
{
    VerifyResult result;
    QByteArray buffer(kChunk, Qt::Uninitialized);
    qint64 read = 0;
    const auto consumed = [&](qint64 bytes) {
        read += bytes;
        progress(read);
    };
    const auto compared = [&](const Listing::FileSpan& file) {
        return !file.name.startsWith(QLatin1String("[BOOT]/")) && !skipped.contains(file.name);
    };
    // The stick is read back on a thread of its own, file after file, while
    // the image's files come through the stream on this one.
    std::vector<FileHash> onStick(files.size());
    size_t ready = 0;
    bool readerDone = false; // also when it stopped early
    std::mutex mutex;
    std::condition_variable readyChanged;
    std::atomic<bool> halt{false};
    const auto stopped = [&] { return stop.load() || halt.load(); };
    std::thread reader([&] {
        for (size_t i = 0; i < files.size() && !stopped(); ++i) {
            if (compared(files[i]))
                onStick[i] = hashFile(root + QLatin1Char('/') + files[i].name, stopped);
            const std::lock_guard<std::mutex> lock(mutex);
            ready = i + 1;
            readyChanged.notify_all();
        }
        const std::lock_guard<std::mutex> lock(mutex);
        readerDone = true;
        readyChanged.notify_all();
    });
    const auto finish = [&] {
        halt = true;
        reader.join();
    };

    for (size_t i = 0; i < files.size(); ++i) {
        const Listing::FileSpan& file = files[i];
        Sha256 hash;
        const bool whole = hashStream(stream, file.size, hash, buffer, consumed, stop);
        if (stop.load()) {
            finish();
            return result;
        }
        if (!whole) {
            result.problems << QStringLiteral("the image ended before /%1 was read").arg(file.name);
            finish();
            return result;
        }
        if (!compared(file))
            continue;
        {
            std::unique_lock<std::mutex> lock(mutex);
            readyChanged.wait(lock, [&] { return ready > i || readerDone; });
            if (ready <= i)
                break; // stopped
        }
        const FileHash& written = onStick[i];
        if (written.size < 0)
            result.problems << QStringLiteral("/%1 is missing or unreadable").arg(file.name);
        else if (written.size != file.size)
            result.problems << QStringLiteral("/%1 has %2 bytes instead of %3")
                                   .arg(file.name)
                                   .arg(written.size)
                                   .arg(file.size);
        else if (written.sha256 != hash.result())
            result.problems << QStringLiteral("/%1 differs from the image").arg(file.name);
        else {
            ++result.files;
            result.bytes += file.size;
        }
    }
    finish();
    result.ok = result.problems.isEmpty() && !stop.load();
    return result;
}

} // namespace UsbBurn

namespace {

const QString kSuccess = QStringLiteral("Burning Successfully...");

QString archiveName()
{
    return ToolLocator::DisplayName(ToolLocator::Tool::Archive);
}

// The first problems of a verification, enough to act on.
QString problemsText(const QStringList& problems)
{
    QString text = problems.mid(0, 5).join(QStringLiteral("; "));
    if (problems.size() > 5)
        text += QStringLiteral("; and %1 more").arg(problems.size() - 5);
    return text + QLatin1Char('.');
}

// Runs the archive tool's "x -so" over the whole image, or over its folder
// `only` (matched in any case), and compares what it writes with the stick,
// on a thread of its own.
class VerifyThread final : public QThread
{
public:
    VerifyThread(QString image, QString only, const std::vector<Listing::FileSpan>& files,
                 QString root, QStringList skipped, std::atomic<bool>& stop)
        : m_image(std::move(image)), m_only(std::move(only)), m_files(files),
          m_root(std::move(root)), m_skipped(std::move(skipped)), m_stop(stop)
    {
    }

    std::function<void(qint64)> onProgress;
    UsbBurn::VerifyResult result;
    QString toolFailure;

protected:
    void run() override
    {
        // A process of the runner's kind, so that it ends with Brenta.
        CProcess tool;
        tool.setProcessChannelMode(QProcess::SeparateChannels);
        QStringList arguments{QStringLiteral("x"), QStringLiteral("-so")};
        if (!m_only.isEmpty())
            arguments << QStringLiteral("-ssc-");
        arguments << QStringLiteral("--") << m_image;
        if (!m_only.isEmpty())
            arguments << m_only;
        tool.start(ToolLocator::Find(ToolLocator::Tool::Archive), arguments);
        if (!tool.waitForStarted(-1)) {
            toolFailure = QStringLiteral("%1 could not be started.").arg(archiveName());
            return;
        }
        tool.setReadChannel(QProcess::StandardOutput);
        result = UsbBurn::Verify(tool, m_files, m_root, m_skipped, onProgress, m_stop);
        if (m_stop.load() || !result.ok) {
            tool.kill();
            tool.waitForFinished(-1);
            return;
        }
        tool.closeReadChannel(QProcess::StandardOutput);
        tool.waitForFinished(-1);
        if (tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0) {
            const QStringList words = QString::fromLocal8Bit(tool.readAllStandardError())
                                          .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
            toolFailure =
                QStringLiteral("%1 failed reading the image (exit status %2). %3")
                    .arg(archiveName())
                    .arg(tool.exitCode())
                    .arg(words.mid(qMax<qsizetype>(0, words.size() - 3)).join(QLatin1Char(' ')));
        }
    }

private:
    QString m_image;
    QString m_only;
    const std::vector<Listing::FileSpan>& m_files;
    QString m_root;
    QStringList m_skipped;
    std::atomic<bool>& m_stop;
};

// Copies `size` bytes of `stream` into `out`; says what went wrong, or nothing.
QString copyBytes(QIODevice& stream, qint64 size, QFile& out, QByteArray& buffer,
                  const std::function<void(qint64)>& written, const std::atomic<bool>& stop)
{
    while (size > 0) {
        if (stop.load())
            return QStringLiteral("stopped");
        if (stream.bytesAvailable() <= 0 && !stream.waitForReadyRead(-1) &&
            stream.bytesAvailable() <= 0)
            return QStringLiteral("the image ended before %1 was read").arg(out.fileName());
        const qint64 got = stream.read(buffer.data(), qMin<qint64>(size, buffer.size()));
        if (got < 0)
            return QStringLiteral("the image could not be read");
        if (got > 0 && out.write(buffer.constData(), got) != got)
            return QStringLiteral("%1 could not be written: %2")
                .arg(out.fileName(), out.errorString());
        size -= got;
        written(got);
    }
    return QString();
}

// A file of the stick copied to another place on it, without permissions.
QString copyOnStick(const QString& from, const QString& to, const std::atomic<bool>& stop)
{
    QFile in(from);
    QFile out(to);
    QDir().mkpath(QFileInfo(to).path());
    if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly))
        return QStringLiteral("%1 could not be copied to %2").arg(from, to);
    QByteArray buffer(UsbBurn::kCopyChunk, Qt::Uninitialized);
    const QString failure = copyBytes(
        in, in.size(), out, buffer, [](qint64) {}, stop);
    out.close();
    if (failure.isEmpty() && out.error() != QFileDevice::NoError)
        return QStringLiteral("%1 could not be written: %2").arg(to, out.errorString());
    return failure;
}

// Writes the image's files onto the stick from the archive tool's "x -so"
// stream, on a thread of its own. Only names and contents are written: the
// stick's file system need not hold Unix permissions, and a symbolic link
// becomes a copy of what it leads to in the image.
class CopyThread final : public QThread
{
public:
    CopyThread(QString image, std::vector<UsbBurn::ImageEntry> entries, QString root,
               QString skipped, std::atomic<bool>& stop)
        : m_image(std::move(image)), m_entries(std::move(entries)), m_root(std::move(root)),
          m_skipped(std::move(skipped)), m_stop(stop)
    {
    }

    std::function<void(qint64 done, qint64 total)> onProgress;
    QString failure;
    QStringList linkCopies;
    int linksLost = 0;

protected:
    void run() override
    {
        qint64 total = 0;
        for (const UsbBurn::ImageEntry& entry : m_entries) {
            const QString path = QDir::cleanPath(entry.path);
            if (path.isEmpty() || path.startsWith(QLatin1Char('/')) ||
                path == QLatin1String("..") || path.startsWith(QLatin1String("../"))) {
                failure =
                    QStringLiteral("the image names %1, which is outside of it.").arg(entry.path);
                return;
            }
            if (!Skipped(entry.path) && !entry.folder && !entry.IsLink())
                total += entry.size;
        }
        CProcess tool;
        tool.setProcessChannelMode(QProcess::SeparateChannels);
        QStringList arguments{QStringLiteral("x"), QStringLiteral("-so"),
                              QStringLiteral("-x![BOOT]")};
        if (!m_skipped.isEmpty())
            arguments << QStringLiteral("-x!") + m_skipped;
        tool.start(ToolLocator::Find(ToolLocator::Tool::Archive),
                   arguments << QStringLiteral("--") << m_image);
        if (!tool.waitForStarted(-1)) {
            failure = QStringLiteral("%1 could not be started.").arg(archiveName());
            return;
        }
        tool.setReadChannel(QProcess::StandardOutput);
        const auto end = qScopeGuard([&] {
            if (tool.state() != QProcess::NotRunning) {
                tool.kill();
                tool.waitForFinished(-1);
            }
        });
        QByteArray buffer(UsbBurn::kCopyChunk, Qt::Uninitialized);
        qint64 done = 0;
        const auto written = [&](qint64 bytes) {
            done += bytes;
            if (onProgress)
                onProgress(done, total);
        };
        QHash<QString, QString> links;
        QSet<QString> present;
        for (const UsbBurn::ImageEntry& entry : m_entries) {
            if (Skipped(entry.path))
                continue;
            const QString target = m_root + QLatin1Char('/') + entry.path;
            if (entry.IsLink()) {
                links.insert(entry.path, entry.link);
                continue;
            }
            present.insert(entry.path);
            if (entry.folder) {
                if (!QDir().mkpath(target)) {
                    failure = QStringLiteral("the folder %1 could not be made.").arg(target);
                    return;
                }
                continue;
            }
            QDir().mkpath(QFileInfo(target).path());
            QFile out(target);
            if (!out.open(QIODevice::WriteOnly)) {
                failure =
                    QStringLiteral("%1 could not be written: %2").arg(target, out.errorString());
                return;
            }
            failure = copyBytes(tool, entry.size, out, buffer, written, m_stop);
            out.close();
            if (failure.isEmpty() && out.error() != QFileDevice::NoError)
                failure =
                    QStringLiteral("%1 could not be written: %2").arg(target, out.errorString());
            if (!failure.isEmpty())
                return;
        }
        tool.closeReadChannel(QProcess::StandardOutput);
        tool.waitForFinished(-1);
        if (tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0) {
            failure = QStringLiteral("%1 failed reading the image (exit status %2).")
                          .arg(archiveName())
                          .arg(tool.exitCode());
            return;
        }
        for (auto link = links.constBegin(); link != links.constEnd() && failure.isEmpty(); ++link)
            CopyLink(link.key(), UsbBurn::ResolveLink(link.key(), link.value(), links, present));
    }

private:
    bool Skipped(const QString& path) const
    {
        return path == QLatin1String("[BOOT]") || path.startsWith(QLatin1String("[BOOT]/")) ||
               (!m_skipped.isEmpty() && path == m_skipped);
    }

    void CopyLink(const QString& link, const QString& target)
    {
        if (target.isEmpty()) {
            ++linksLost;
            return;
        }
        const QString from = m_root + QLatin1Char('/') + target;
        const QString to = m_root + QLatin1Char('/') + link;
        if (!QFileInfo(from).isDir()) {
            failure = copyOnStick(from, to, m_stop);
            linkCopies << link;
            return;
        }
        QDir().mkpath(to);
        QDirIterator it(from, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext() && failure.isEmpty()) {
            const QString path = it.next();
            const QString copy = to + QLatin1Char('/') + QDir(from).relativeFilePath(path);
            if (it.fileInfo().isDir())
                QDir().mkpath(copy);
            else
                failure = copyOnStick(path, copy, m_stop);
        }
        linkCopies << link;
    }

    QString m_image;
    std::vector<UsbBurn::ImageEntry> m_entries;
    QString m_root;
    QString m_skipped;
    std::atomic<bool>& m_stop;
};

} // namespace

CUsbBurnJob::CUsbBurnJob(QObject* parent) : CJob(parent) {}

CUsbBurnJob::~CUsbBurnJob()
{
    if (m_list != nullptr)
        m_list->Stop();
    CRunCommandThread::Dispose(m_runner);
    m_feeder.reset();
    StopVerifier();
    // A burn cut short must not leave the stick mounted; the helper runs as
    // every tool does (its own process group, English, UTF-8 names).
    if (IsRunning() && !m_mountPoint.isEmpty()) {
        const QStringList command = HelperCommand({QStringLiteral("unmount"), m_options.device});
        CProcess unmount;
        unmount.start(command.first(), command.mid(1));
        unmount.waitForFinished(-1);
    }
}

QString CUsbBurnJob::PhaseTitle(Phase phase)
{
    switch (phase) {
    case Phase::Checking:
        return QStringLiteral("Checking the image...");
    case Phase::Writing:
        return QStringLiteral("Writing the image to the USB disk...");
    case Phase::Formatting:
        return QStringLiteral("The USB disk is formating...");
    case Phase::BootCode:
        return QStringLiteral("The USB disk is install bootsect...");
    case Phase::Copying:
        return QStringLiteral("Burning the USB disk...");
    case Phase::Splitting:
        return QStringLiteral("Splitting the installer image for FAT...");
    case Phase::Verifying:
        return QStringLiteral("Verifying the USB disk...");
    case Phase::Finishing:
        return QStringLiteral("Ejecting the USB disk safely...");
    }
    return QString();
}

QString CUsbBurnJob::SuccessText(int files, qint64 bytes)
{
    return kSuccess +
           QStringLiteral(
               "\n\nAll %1 files (%2) were read back from the stick and match the image. "
               "The stick can be removed.")
               .arg(files)
               .arg(Util::FormatSize(bytes));
}

QString CUsbBurnJob::ImageSuccessText(qint64 bytes, const QString& sha256,
                                      const QString& checksumFile)
{
    const QString published =
        checksumFile.isEmpty()
            ? QString()
            : QStringLiteral(" The image matches the published checksum in %1.").arg(checksumFile);
    return kSuccess +
           QStringLiteral(
               "\n\nThe stick holds the image byte for byte: all %1 (%2 bytes) were read back "
               "from the stick and their SHA-256 matches the image's.%3 The stick can be "
               "removed.\n\nSHA-256 of the image: %4")
               .arg(Util::FormatSize(bytes))
               .arg(bytes)
               .arg(published, sha256);
}

QString CUsbBurnJob::RestoredText(UsbPlan::FileSystem fs, const QString& label)
{
    const QString what =
        label.isEmpty() ? QStringLiteral("one %1 partition").arg(UsbPlan::Name(fs))
                        : QStringLiteral("one %1 partition named %2").arg(UsbPlan::Name(fs), label);
    return QStringLiteral(
               "The stick is an ordinary stick again: it holds %1 and nothing of what it held "
               "before. The stick can be removed.")
        .arg(what);
}

QStringList CUsbBurnJob::HelperCommand(const QStringList& arguments)
{
    const QString helper = ToolLocator::Find(ToolLocator::Tool::UsbHelper);
    const QString toolsDir = qEnvironmentVariable("BRENTA_TOOLS_DIR");
    const bool standIn = !toolsDir.isEmpty() && helper.startsWith(toolsDir + QLatin1Char('/'));
    if (::geteuid() == 0 || standIn || helper.isEmpty())
        return QStringList(helper) + arguments;
    return QStringList{QStringLiteral("pkexec"), helper} + arguments;
}

void CUsbBurnJob::Plan(const Options& options)
{
    m_options = options;
    m_options.image = QFileInfo(options.image).absoluteFilePath();
    m_planned = false;
    m_decision = UsbPlan::Decision();
    m_published = UsbBurn::PublishedChecksum();
    if (ToolLocator::Find(ToolLocator::Tool::UsbHelper).isEmpty()) {
        Q_EMIT planned(
            false,
            QStringLiteral("Brenta's USB helper (brenta-usb-helper) is not installed, so the "
                           "stick cannot be prepared. Please reinstall Brenta."));
        return;
    }
    if (m_list == nullptr) {
        m_list = new CListJob(m_tree, this);
        m_list->RecordFiles(&m_files);
        connect(m_list, &CListJob::finished, this, &CUsbBurnJob::OnListed);
    }
    Enter(Phase::Checking, -1);
    QFile image(m_options.image);
    if (!image.open(QIODevice::ReadOnly)) {
        Q_EMIT planned(
            false,
            QStringLiteral("%1 could not be opened: %2").arg(m_options.image, image.errorString()));
        return;
    }
    m_head = image.read(UsbPlan::kHeadBytes);
    // An image with a partition table goes as it is, whatever files it holds:
    // no listing is needed to decide.
    if (m_options.autoMode ? UsbPlan::HasPartitionTable(m_head)
                           : m_options.mode == UsbPlan::WriteMode::Image) {
        QMetaObject::invokeMethod(this, &CUsbBurnJob::PlanImage, Qt::QueuedConnection);
        return;
    }
    m_list->Start(m_options.image);
}

void CUsbBurnJob::PlanImage()
{
    const qint64 imageSize = QFileInfo(m_options.image).size();
    m_decision = UsbPlan::DecideImage(imageSize, Util::DiskTotalSize(m_options.device));
    m_decision.mode = UsbPlan::WriteMode::Image;
    m_published = UsbBurn::FindPublishedChecksum(m_options.image);
    m_decision.checksumFile = m_published.file;
    if (m_options.autoMode) {
        m_decision.modeReason = UsbPlan::ChooseMode(m_head, ItemTree()).reason;
    } else {
        m_decision.modeReason = QStringLiteral(
            "You chose disk image mode: the image is written to the stick as it is.");
        if (!UsbPlan::HasPartitionTable(m_head))
            m_decision.warnings << QStringLiteral(
                "This image has no partition table, so a stick that holds it as "
                "it is will most likely not start.");
    }
    if (!m_decision.refusals.isEmpty()) {
        Q_EMIT planned(false, QStringLiteral("Nothing was written to the stick. ") +
                                  m_decision.refusals.join(QLatin1Char(' ')));
        return;
    }
    m_planned = true;
    Q_EMIT planned(true, QString());
}

void CUsbBurnJob::OnListed()
{
    if (!m_list->Succeeded()) {
        Q_EMIT planned(false, m_list->Message());
        return;
    }
    const qint64 imageSize = QFileInfo(m_options.image).size();
    const qint64 capacity = Util::DiskTotalSize(m_options.device);
    // An image whose EFI loader lives only in its El Torito EFI boot image
    // (as Linux distributions make them) can still start a FAT stick
    // through UEFI: that boot image's /EFI tree goes onto it too.
    m_efiOffset = 0;
    m_efiLength = 0;
    const std::optional<ElTorito::Catalog> catalog = ElTorito::ReadFile(m_options.image);
    // The first EFI entry, the default one included (an image may have no other).
    const auto efi = catalog ? std::find_if(catalog->entries.cbegin(), catalog->entries.cend(),
                                            [](const ElTorito::Entry& entry) {
                                                return entry.platform == ElTorito::kPlatformEfi;
                                            })
                             : std::vector<ElTorito::Entry>::const_iterator();
    if (catalog && efi != catalog->entries.cend()) {
        QFile file(m_options.image);
        if (file.open(QIODevice::ReadOnly)) {
            const auto read = [&file](qint64 offset, int length, char* buffer) {
                return file.seek(offset) && file.read(buffer, length) == length;
            };
            const ElTorito::Entry& entry = *efi;
            const BootSetup::Measure measure =
                BootSetup::MeasureEntry(entry, true, read, imageSize);
            // Read whole into memory when copied; EFI boot images are a few MiB.
            if (measure.length > 0 && measure.length <= (256 << 20)) {
                m_efiOffset = qint64(entry.loadRba) * 2048;
                m_efiLength = measure.length;
            }
        }
    }
    m_decision =
        UsbPlan::Decide(m_tree, imageSize, capacity, m_options.scheme, m_options.fileSystem,
                        m_options.label, m_options.fatFileLimit, m_efiLength > 0);
    m_decision.mode = UsbPlan::WriteMode::Files;
    m_decision.modeReason =
        m_options.autoMode
            ? UsbPlan::ChooseMode(m_head, m_tree).reason
            : QStringLiteral("You chose files mode: the image's files are copied onto the stick.");
    QStringList refusals = m_decision.refusals;
    if (m_decision.tooSmall) {
        refusals.prepend(
            QStringLiteral("The stick (%1) cannot hold the image (%2) with 50 MB to spare.")
                .arg(Util::FormatSize(capacity), Util::FormatSize(imageSize)));
    }
    if (!m_decision.splitWim.isEmpty()) {
        const qint64 wimSize = m_tree.Find(m_decision.splitWim)->size.toLongLong();
        if (ToolLocator::Find(ToolLocator::Tool::WimTool).isEmpty())
            refusals << QStringLiteral(
                "sources/install.wim is larger than FAT allows and must be split, but "
                "wimlib-imagex is not installed. Install it (package wimtools) or "
                "choose NTFS or exFAT.");
        else if (!QDir().mkpath(Util::ScratchDir()) ||
                 QStorageInfo(Util::ScratchDir()).bytesAvailable() < wimSize + UsbPlan::kSpareBytes)
            refusals
                << QStringLiteral(
                       "sources/install.wim (%1) must be split, which needs as much free space "
                       "in %2.")
                       .arg(Util::FormatSize(wimSize), Util::ScratchDir());
    }
    if (!refusals.isEmpty()) {
        Q_EMIT planned(false, QStringLiteral("Nothing was written to the stick. ") +
                                  refusals.join(QLatin1Char(' ')));
        return;
    }
    m_planned = true;
    Q_EMIT planned(true, QString());
}

bool CUsbBurnJob::BeginBurn()
{
    if (!m_planned || IsRunning())
        return false;
    Begin();
    m_planned = false;
    m_stopping = false;
    m_restoring = false;
    m_failure.clear();
    m_mountPoint.clear();
    m_efiCopied = false;
    m_sharedFeeder = false;
    m_feeder.reset();
    return true;
}

void CUsbBurnJob::Burn()
{
    if (!BeginBurn())
        return;
    if (m_decision.mode == UsbPlan::WriteMode::Image) {
        StartWrite();
        return;
    }
    Enter(Phase::Formatting, -1);
    RunHelper(QStringLiteral("formatting"),
              UsbBurn::PrepareArguments(m_options.device, m_options.scheme, m_decision.fileSystem,
                                        m_options.label),
              &CUsbBurnJob::StartBootCode);
}

void CUsbBurnJob::BurnFrom(std::shared_ptr<UsbBurn::ImageFeeder> feeder, int output)
{
    if (m_decision.mode != UsbPlan::WriteMode::Image || !BeginBurn())
        return;
    m_feeder = std::move(feeder);
    m_sharedFeeder = true;
    m_output = output;
    StartWrite();
}

void CUsbBurnJob::Restore(const QString& device, UsbPlan::FileSystem fs, const QString& label)
{
    if (IsRunning())
        return;
    Begin();
    m_planned = false;
    m_stopping = false;
    m_restoring = true;
    m_failure.clear();
    m_mountPoint.clear();
    m_options = Options();
    m_options.device = device;
    m_options.fileSystem = fs;
    const UsbPlan::Label checked = UsbPlan::CheckLabel(fs, label);
    m_options.label = checked.text;
    QString refusal = checked.problem;
    if (ToolLocator::Find(ToolLocator::Tool::UsbHelper).isEmpty())
        refusal = QStringLiteral(
            "Brenta's USB helper (brenta-usb-helper) is not installed. Please reinstall "
            "Brenta.");
    if (!refusal.isEmpty()) {
        Finish(false, QStringLiteral("Nothing was written to the stick. ") + refusal);
        return;
    }
    // The helper's prepare wipes the disk's first 2 MiB and last MiB, where
    // every table and file system signature an image leaves is found.
    Enter(Phase::Formatting, -1);
    RunHelper(QStringLiteral("formatting"),
              UsbBurn::PrepareArguments(device, UsbPlan::Scheme::Mbr, fs, m_options.label),
              &CUsbBurnJob::StartRestoreUnmount);
}

void CUsbBurnJob::StartRestoreUnmount()
{
    Enter(Phase::Finishing, -1);
    RunHelper(QStringLiteral("unmounting"), {QStringLiteral("unmount"), m_options.device},
              &CUsbBurnJob::Restored);
}

void CUsbBurnJob::Restored()
{
    End(true, RestoredText(m_options.fileSystem, m_options.label));
}

void CUsbBurnJob::RunHelper(const QString& step, const QStringList& arguments, Next next, int input)
{
    const QStringList command = HelperCommand(arguments);
    m_report = UsbBurn::HelperReport();
    const auto read = [this](const QString& line) {
        const qint64 done = m_report.done;
        UsbBurn::ReadHelperLine(line, m_report);
        if (m_report.done != done)
            Transferred(m_report.done);
    };
    StartRunner(
        command.first(), command.mid(1), read,
        [this, step, next, arguments] {
            // What the image feeder saw is final only once it has stopped, and an
            // image that could not be read explains the helper's failure too.
            QString imageFailure;
            if (m_feeder != nullptr) {
                // A feeder shared with other sticks goes on for them.
                if (!m_sharedFeeder)
                    m_feeder->Finish();
                imageFailure = m_feeder->Error();
            }
            const CRunCommandThread::Result result = m_runner->GetResult();
            const int exitCode = m_runner->ExitCode();
            const QString failure =
                m_runner->FailureText(ToolLocator::DisplayName(ToolLocator::Tool::UsbHelper));
            const bool pkexec = m_runner->Program().endsWith(QLatin1String("pkexec"));
            m_runner->deleteLater();
            m_runner = nullptr;
            if (!m_report.mounted.isEmpty())
                m_mountPoint = m_report.mounted;
            // An unmount is never tried twice: after it the stick counts as
            // unmounted, or as one the user must unmount, which the message says.
            if (arguments.first() == QLatin1String("unmount"))
                m_mountPoint.clear();
            if (result == CRunCommandThread::Result::Success && imageFailure.isEmpty()) {
                (this->*next)();
                return;
            }
            QString reason;
            if (!imageFailure.isEmpty())
                reason = step + QStringLiteral(": ") + imageFailure;
            else if (!m_report.error.isEmpty())
                reason = m_report.error;
            else if (pkexec && exitCode == 126)
                reason =
                    step + QStringLiteral(": Brenta is not authorised to change the stick: the "
                                          "administrator's password was not given.");
            else if (pkexec && exitCode == 127)
                reason = step + QStringLiteral(
                                    ": Brenta is not authorised to change the stick: the system's "
                                    "policy refused it, or the password was wrong.");
            else
                reason = step + QStringLiteral(": ") + failure;
            Fail(reason);
        },
        input);
}

void CUsbBurnJob::RunTool(const QString& step, const QString& program, const QString& toolName,
                          const QStringList& arguments, Next next)
{
    const auto read = [this](const QString& line) {
        if (const std::optional<Extraction::Progress> step = Extraction::ParseProgress(line))
            Step(step->percent);
    };
    StartRunner(program, arguments, read, [this, step, toolName, next] {
        const bool ok = m_runner->GetResult() == CRunCommandThread::Result::Success;
        const QString failure = m_runner->FailureText(toolName);
        m_runner->deleteLater();
        m_runner = nullptr;
        if (ok)
            (this->*next)();
        else
            Fail(step + QStringLiteral(": ") + failure);
    });
}

void CUsbBurnJob::StartRunner(const QString& program, const QStringList& arguments,
                              const std::function<void(const QString&)>& onLine,
                              const std::function<void()>& onEnd, int input)
{
    CRunCommandThread::Dispose(m_runner);
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, onLine);
    connect(m_runner, &CRunCommandThread::sigfinished, this, onEnd);
    m_runner->SetCommand(program, arguments);
    if (input >= 0)
        m_runner->SetInput(input);
    m_runner->StartCommand();
}

void CUsbBurnJob::StartWrite()
{
    Enter(Phase::Writing, 0);
    m_phaseClock.start();
    m_imageSize = QFileInfo(m_options.image).size();
    m_imageSha256.clear();
    if (!m_sharedFeeder) {
        m_feeder = std::make_shared<UsbBurn::ImageFeeder>(m_options.image, m_imageSize);
        m_output = 0;
        if (!m_feeder->Problem().isEmpty()) {
            const QString problem = m_feeder->Problem();
            m_feeder.reset();
            Fail(QStringLiteral("writing: ") + problem);
            return;
        }
    }
    RunHelper(QStringLiteral("writing"),
              {QStringLiteral("write"), m_options.device, QStringLiteral("--size"),
               QString::number(m_imageSize)},
              &CUsbBurnJob::StartReadBack, m_feeder->TakeReadEnd(m_output));
    // A shared feeder starts once every stick's helper runs.
    if (!m_sharedFeeder)
        m_feeder->Start();
}

void CUsbBurnJob::StartReadBack()
{
    // A shared feeder counts the last bytes a moment after the helper read them.
    for (int waited = 0; m_sharedFeeder && m_feeder->Fed(m_output) != m_imageSize && waited < 2000;
         ++waited)
        QThread::msleep(1);
    const qint64 fed = m_feeder->Fed(m_output);
    m_imageSha256 = m_feeder->Sha256Hex();
    m_feeder.reset();
    if (!m_imageSha256.isEmpty())
        Q_EMIT imageHashed(QString::fromLatin1(m_imageSha256));
    if (fed != m_imageSize || m_imageSha256.isEmpty()) {
        Fail(QStringLiteral("writing: the helper ended after taking %1 of the image's %2 bytes.")
                 .arg(fed)
                 .arg(m_imageSize));
        return;
    }
    // The hash taken while writing is the image's; a copy that was damaged
    // or changed on its way to the user fails here, before the read-back.
    if (!m_published.sha256.isEmpty() && m_published.sha256 != m_imageSha256) {
        Fail(QStringLiteral("writing: the image does not match the published checksum in %1: "
                            "expected %2, got %3.")
                 .arg(m_published.file, QString::fromLatin1(m_published.sha256),
                      QString::fromLatin1(m_imageSha256)));
        return;
    }
    // The helper reads the stick itself, past the system's cache.
    Enter(Phase::Verifying, 0);
    m_phaseClock.start();
    RunHelper(QStringLiteral("verifying"),
              {QStringLiteral("hash"), m_options.device, QStringLiteral("--size"),
               QString::number(m_imageSize)},
              &CUsbBurnJob::ReadBack);
}

void CUsbBurnJob::ReadBack()
{
    if (m_report.sha256.isEmpty()) {
        Fail(QStringLiteral("verifying: the helper did not say what it read back."));
        return;
    }
    if (m_report.sha256.toLatin1() != m_imageSha256) {
        Fail(QStringLiteral("verifying: the stick does not hold the image. Its first %1 bytes have "
                            "the SHA-256 %2, "
                            "the image %3.")
                 .arg(m_imageSize)
                 .arg(m_report.sha256, QString::fromLatin1(m_imageSha256)));
        return;
    }
    End(true, ImageSuccessText(m_imageSize, QString::fromLatin1(m_imageSha256), m_published.file));
}

void CUsbBurnJob::Transferred(qint64 done)
{
    if (m_imageSize <= 0)
        return;
    Step(int(qMin(done, m_imageSize) * 100 / m_imageSize));
    Q_EMIT transfer(UsbBurn::TransferText(done, m_imageSize, m_phaseClock.elapsed()));
}

QStringList CUsbBurnJob::CopiedExclusions() const
{
    // The archive tool's "[BOOT]" pseudo-folder and, where it is split
    // instead, the installer image.
    QStringList excluded{QStringLiteral("[BOOT]")};
    if (const QString wim = SplitWim(); !wim.isEmpty())
        excluded << wim;
    return excluded;
}

QString CUsbBurnJob::SplitWim() const
{
    QString wim = m_decision.splitWim;
    return wim.replace(QLatin1Char('\\'), QLatin1Char('/'));
}

void CUsbBurnJob::StartBootCode()
{
    if (m_mountPoint.isEmpty()) {
        Fail(QStringLiteral("formatting: the helper did not say where it mounted the stick."));
        return;
    }
    if (!m_decision.bootCode) {
        StartCopy();
        return;
    }
    Enter(Phase::BootCode, -1);
    RunHelper(QStringLiteral("boot code"), {QStringLiteral("bootcode"), m_options.device},
              &CUsbBurnJob::StartCopy);
}

void CUsbBurnJob::StartCopy()
{
    Enter(Phase::Copying, -1);
    m_linkCopies.clear();
    m_linksLost = 0;
    m_entries = std::make_unique<UsbBurn::TechnicalListing>();
    StartRunner(
        ToolLocator::Find(ToolLocator::Tool::Archive),
        {QStringLiteral("l"), QStringLiteral("-slt"), QStringLiteral("--"), m_options.image},
        [this](const QString& line) { m_entries->Read(line); },
        [this] {
            const bool ok = m_runner->GetResult() == CRunCommandThread::Result::Success;
            const QString failure = m_runner->FailureText(archiveName());
            m_runner->deleteLater();
            m_runner = nullptr;
            if (!ok)
                Fail(QStringLiteral("copying the files: ") + failure);
            else if (m_entries->HasUnixModes())
                StartStreamCopy();
            else
                StartToolCopy();
        });
}

void CUsbBurnJob::StartToolCopy()
{
    Step(0);
    RunTool(QStringLiteral("copying the files"), ToolLocator::Find(ToolLocator::Tool::Archive),
            archiveName(),
            Extraction::Arguments(m_options.image, m_mountPoint, QStringList(), CopiedExclusions()),
            &CUsbBurnJob::StartSplit);
}

void CUsbBurnJob::StartStreamCopy()
{
    // The archive tool would set every file's Unix permissions from the
    // image's Rock Ridge records and make its symbolic links, which FAT and
    // the FUSE drivers cannot hold; Brenta writes names and contents only.
    Step(0);
    m_stopVerify = false;
    auto* thread = new CopyThread(m_options.image, m_entries->Entries(), m_mountPoint, SplitWim(),
                                  m_stopVerify);
    thread->onProgress = [this, last = -1](qint64 done, qint64 total) mutable {
        const int value = total > 0 ? int(done * 100 / total) : 100;
        if (value == last)
            return;
        last = value;
        QMetaObject::invokeMethod(
            this, [this, value] { Step(value); }, Qt::QueuedConnection);
    };
    connect(thread, &QThread::finished, this, [this, thread] {
        const QString failure = thread->failure;
        m_linkCopies = thread->linkCopies;
        m_linksLost = thread->linksLost;
        m_verifier = nullptr;
        thread->deleteLater();
        if (m_stopping) {
            Fail(QString());
            return;
        }
        if (!failure.isEmpty()) {
            Fail(QStringLiteral("copying the files: ") + failure);
            return;
        }
        StartSplit();
    });
    m_verifier = thread;
    thread->start();
}

void CUsbBurnJob::StartSplit()
{
    // The tool prints no percentages for a copy that takes no time.
    Step(100);
    if (m_decision.splitWim.isEmpty()) {
        StartRemount();
        return;
    }
    Enter(Phase::Splitting, -1);
    m_wimDir = std::make_unique<ScratchFolder>(QStringLiteral("wim"));
    if (!m_wimDir->IsValid()) {
        Fail(QStringLiteral("splitting install.wim: no temporary folder could be made in %1.")
                 .arg(Util::ScratchDir()));
        return;
    }
    const QString wim = SplitWim();
    RunTool(QStringLiteral("splitting install.wim"), ToolLocator::Find(ToolLocator::Tool::Archive),
            archiveName(), Extraction::Arguments(m_options.image, m_wimDir->Path(), {wim}),
            &CUsbBurnJob::SplitExtracted);
}

void CUsbBurnJob::SplitExtracted()
{
    const QString wim = SplitWim();
    const QString folder = m_mountPoint + QLatin1Char('/') + QFileInfo(wim).path();
    QDir().mkpath(folder);
    RunTool(QStringLiteral("splitting install.wim"), ToolLocator::Find(ToolLocator::Tool::WimTool),
            ToolLocator::DisplayName(ToolLocator::Tool::WimTool),
            UsbBurn::SplitArguments(m_wimDir->Path() + QLatin1Char('/') + wim,
                                    folder + QStringLiteral("/install.swm"),
                                    m_options.fatFileLimit),
            &CUsbBurnJob::StartRemount);
}

void CUsbBurnJob::StartEfiCopy()
{
    m_efiCopied = true;
    Enter(Phase::Copying, -1);
    m_efiDir = std::make_unique<ScratchFolder>(QStringLiteral("efi"));
    const QString fatImage = EfiImage();
    QFile image(m_options.image);
    QFile copy(fatImage);
    if (!m_efiDir->IsValid() || !image.open(QIODevice::ReadOnly) || !image.seek(m_efiOffset) ||
        !copy.open(QIODevice::WriteOnly) || copy.write(image.read(m_efiLength)) != m_efiLength ||
        !copy.flush()) {
        Fail(QStringLiteral(
                 "copying the EFI loader: the image's EFI boot image could not be copied to %1.")
                 .arg(Util::ScratchDir()));
        return;
    }
    copy.close();
    // FAT keeps no Unix permissions, so the archive tool writes only names
    // and contents. grub-mkrescue names the folder "efi", isolinux images "EFI".
    RunTool(QStringLiteral("copying the EFI loader"), ToolLocator::Find(ToolLocator::Tool::Archive),
            archiveName(),
            {QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-ssc-"),
             QStringLiteral("-o") + m_mountPoint, QStringLiteral("--"), fatImage,
             QStringLiteral("EFI")},
            &CUsbBurnJob::StartRemount);
}

QString CUsbBurnJob::EfiImage() const
{
    return m_efiDir == nullptr ? QString() : m_efiDir->Path() + QStringLiteral("/efiboot.img");
}

void CUsbBurnJob::StartRemount()
{
    m_wimDir.reset();
    if (m_decision.efiFromBootImage && !m_efiCopied) {
        StartEfiCopy();
        return;
    }
    // Reading back through a fresh mount reads the stick, not what the
    // system still holds in memory from the copy.
    Enter(Phase::Verifying, -1);
    RunHelper(QStringLiteral("verifying"),
              {QStringLiteral("remount"), m_options.device, QStringLiteral("--fs"),
               UsbPlan::Name(m_decision.fileSystem).toLower()},
              &CUsbBurnJob::StartVerify);
}

void CUsbBurnJob::StartVerify()
{
    const QString wim = SplitWim();
    // A symbolic link is a file of no bytes in the listing; on the stick it is
    // a copy of its target or nothing.
    QStringList skipped = wim.isEmpty() ? QStringList() : QStringList(wim);
    if (m_entries != nullptr) {
        for (const UsbBurn::ImageEntry& entry : m_entries->Entries()) {
            if (entry.IsLink())
                skipped << entry.path;
        }
    }
    m_verified = UsbBurn::VerifyResult();
    RunVerifier(m_options.image, QString(), m_files, skipped,
                m_efiCopied ? &CUsbBurnJob::StartEfiVerify : &CUsbBurnJob::VerifySplit, true);
}

void CUsbBurnJob::StartEfiVerify()
{
    // The /EFI tree taken from the EFI boot image is compared with that
    // image. It is a few files, read in a moment: the progress stays full.
    m_efiEntries = std::make_unique<UsbBurn::TechnicalListing>();
    StartRunner(
        ToolLocator::Find(ToolLocator::Tool::Archive),
        {QStringLiteral("l"), QStringLiteral("-slt"), QStringLiteral("-ssc-"), QStringLiteral("--"),
         EfiImage(), QStringLiteral("EFI")},
        [this](const QString& line) { m_efiEntries->Read(line); },
        [this] {
            const bool ok = m_runner->GetResult() == CRunCommandThread::Result::Success;
            const QString failure = m_runner->FailureText(archiveName());
            m_runner->deleteLater();
            m_runner = nullptr;
            if (!ok) {
                Fail(QStringLiteral("verifying: ") + failure);
                return;
            }
            m_efiFiles.clear();
            for (const UsbBurn::ImageEntry& entry : m_efiEntries->Entries()) {
                if (!entry.folder)
                    m_efiFiles.push_back(Listing::FileSpan{entry.path, entry.size});
            }
            RunVerifier(EfiImage(), QStringLiteral("EFI"), m_efiFiles, QStringList(),
                        &CUsbBurnJob::VerifySplit, false);
        });
}

void CUsbBurnJob::RunVerifier(const QString& archive, const QString& only,
                              const std::vector<Listing::FileSpan>& files,
                              const QStringList& skipped, Next next, bool counted)
{
    qint64 total = 0;
    for (const Listing::FileSpan& file : files)
        total += file.size;
    m_stopVerify = false;
    auto* thread = new VerifyThread(archive, only, files, m_mountPoint, skipped, m_stopVerify);
    if (counted) {
        thread->onProgress = [this, total, last = -1](qint64 read) mutable {
            const int value = total > 0 ? int(read * 100 / total) : 100;
            if (value == last)
                return;
            last = value;
            QMetaObject::invokeMethod(
                this, [this, value] { Step(value); }, Qt::QueuedConnection);
        };
        Step(0);
    } else {
        thread->onProgress = [](qint64) {};
    }
    connect(thread, &QThread::finished, this, [this, thread, next] {
        const UsbBurn::VerifyResult result = thread->result;
        const QString toolFailure = thread->toolFailure;
        m_verifier = nullptr;
        thread->deleteLater();
        if (m_stopping) {
            Fail(QString());
            return;
        }
        QString reason;
        if (!toolFailure.isEmpty())
            reason = toolFailure;
        else if (!result.ok)
            reason = QStringLiteral("what was written differs from the image: ") +
                     problemsText(result.problems);
        if (!reason.isEmpty()) {
            Fail(QStringLiteral("verifying: ") + reason);
            return;
        }
        m_verified.ok = true;
        m_verified.files += result.files;
        m_verified.bytes += result.bytes;
        (this->*next)();
    });
    m_verifier = thread;
    thread->start();
}

void CUsbBurnJob::VerifySplit()
{
    if (m_decision.splitWim.isEmpty()) {
        StartUnmount();
        return;
    }
    // The parts carry SHA-1 checksums of every resource; wimlib reads them all.
    const QString wim = SplitWim();
    const QString folder = m_mountPoint + QLatin1Char('/') + QFileInfo(wim).path();
    Step(-1);
    RunTool(QStringLiteral("verifying"), ToolLocator::Find(ToolLocator::Tool::WimTool),
            ToolLocator::DisplayName(ToolLocator::Tool::WimTool),
            {QStringLiteral("verify"), folder + QStringLiteral("/install.swm"),
             QStringLiteral("--ref=") + folder + QStringLiteral("/install*.swm")},
            &CUsbBurnJob::StartUnmount);
}

void CUsbBurnJob::StartUnmount()
{
    m_efiDir.reset();
    Enter(Phase::Finishing, -1);
    RunHelper(QStringLiteral("unmounting"), {QStringLiteral("unmount"), m_options.device},
              &CUsbBurnJob::Burned);
}

void CUsbBurnJob::Burned()
{
    if (!m_failure.isEmpty()) {
        End(false, m_failure);
        return;
    }
    m_mountPoint.clear();
    QString text = SuccessText(m_verified.files, m_verified.bytes);
    if (!m_linkCopies.isEmpty())
        text +=
            QStringLiteral(
                "\n\n%1 symbolic links, which the stick's file system cannot hold, are copies of "
                "their targets.")
                .arg(m_linkCopies.size());
    if (m_linksLost > 0)
        text += QStringLiteral(
                    "\n\n%1 symbolic links could not be kept: they lead out of the image or to "
                    "nothing in it.")
                    .arg(m_linksLost);
    End(true, text);
}

void CUsbBurnJob::Fail(const QString& stepAndReason)
{
    // After a stop, only the unmount that follows can fail, and says so itself.
    const QString message =
        m_stopping && m_failure.isEmpty()
            ? StoppedMessage() +
                  QStringLiteral(" What the stick holds is incomplete: burn or restore it again.")
            : (m_restoring
                   ? QStringLiteral("The USB stick was not restored. The step that failed: ")
                   : QStringLiteral("The USB stick was not burned. The step that failed: ")) +
                  stepAndReason;
    m_wimDir.reset();
    m_efiDir.reset();
    m_feeder.reset();
    if (!m_failure.isEmpty()) {
        // The unmount after a failure failed too.
        End(false,
            m_failure +
                QStringLiteral("\n\nThe stick could not be unmounted either; unmount it before "
                               "removing it. ") +
                message);
        return;
    }
    m_failure = message;
    if (m_mountPoint.isEmpty()) {
        // The helper tidies up after its own failures; nothing is mounted.
        End(false, m_failure);
        return;
    }
    Enter(Phase::Finishing, -1);
    RunHelper(QStringLiteral("unmounting"), {QStringLiteral("unmount"), m_options.device},
              &CUsbBurnJob::Burned);
}

void CUsbBurnJob::End(bool succeeded, const QString& message)
{
    m_mountPoint.clear();
    Finish(succeeded, message);
}

void CUsbBurnJob::Enter(Phase phase, int percent)
{
    m_phase = phase;
    Q_EMIT this->phase(phase);
    Step(percent);
}

void CUsbBurnJob::Step(int percent)
{
    Progress(percent, PhaseTitle(m_phase));
}

void CUsbBurnJob::Stop()
{
    // A burn that is ending already (unmounting after a failure, or at its
    // end) goes on to its end.
    if (!IsRunning() || m_stopping || !m_failure.isEmpty() || m_phase == Phase::Finishing)
        return;
    m_stopping = true;
    // A verifier or a stream copy sees this and ends; its end goes on as a
    // failure would, unmounting the stick.
    m_stopVerify = true;
    if (m_runner != nullptr) {
        CRunCommandThread::StopThen(m_runner, [self = QPointer<CUsbBurnJob>(this)] {
            if (self == nullptr)
                return;
            // A helper stopped after it mounted the stick has not said so at its end.
            if (!self->m_report.mounted.isEmpty())
                self->m_mountPoint = self->m_report.mounted;
            self->Fail(QString());
        });
    } else if (m_verifier == nullptr) {
        Fail(QString());
    }
}

void CUsbBurnJob::StopVerifier()
{
    if (m_verifier == nullptr)
        return;
    m_stopVerify = true;
    m_verifier->wait();
    delete m_verifier;
    m_verifier = nullptr;
}

CUsbMultiBurnJob::CUsbMultiBurnJob(QObject* parent) : CJob(parent) {}

CUsbMultiBurnJob::~CUsbMultiBurnJob()
{
    // The sticks' helpers end first, so that the feeder waits for no one.
    m_jobs.clear();
    m_feeder.reset();
}

void CUsbMultiBurnJob::Plan(const CUsbBurnJob::Options& options, const QStringList& devices)
{
    m_jobs.clear();
    m_devices = devices;
    m_image = options.image;
    m_refusals.clear();
    m_results = QStringList(devices.size(), QString());
    m_pending = int(devices.size());
    m_allSucceeded = true;
    m_sticks.assign(size_t(devices.size()), Stick());
    m_shown = -1;
    m_shownPhase.reset();
    for (int i = 0; i < devices.size(); ++i) {
        auto job = std::make_unique<CUsbBurnJob>();
        CUsbBurnJob* raw = job.get();
        Stick& stick = m_sticks[size_t(i)];
        stick.running = true;
        connect(raw, &CUsbBurnJob::planned, this, [this, raw, i](bool ok, const QString& message) {
            if (!ok)
                m_refusals << QStringLiteral("%1: %2").arg(m_devices.at(i), message);
            else if (raw->Decision().mode != UsbPlan::WriteMode::Image)
                m_refusals << QStringLiteral(
                                  "%1: several sticks are written at once only in disk image "
                                  "mode; this image goes the files way (%2)")
                                  .arg(m_devices.at(i), raw->Decision().modeReason);
            if (--m_pending == 0)
                Q_EMIT planned(m_refusals.isEmpty(), m_refusals.join(QLatin1Char('\n')));
        });
        connect(raw, &CUsbBurnJob::finished, this, [this, i](bool ok, const QString& message) {
            m_allSucceeded = m_allSucceeded && ok;
            m_results[i] = QStringLiteral("%1: %2").arg(
                m_devices.at(i),
                QString(message).replace(QLatin1String("\n\n"), QLatin1String(" ")));
            m_sticks[size_t(i)].running = false;
            Q_EMIT stickFinished(m_devices.at(i), ok, message);
            Follow();
            if (--m_pending == 0) {
                m_feeder.reset();
                Finish(m_allSucceeded, m_results.join(QLatin1Char('\n')));
            }
        });
        connect(raw, &CUsbBurnJob::phase, this, [this, i](CUsbBurnJob::Phase phase) {
            Stick& stick = m_sticks[size_t(i)];
            stick.phase = phase;
            stick.percent = -1;
            stick.transfer.clear();
            Follow();
        });
        connect(raw, &CUsbBurnJob::progressed, this, [this, i](int percent) {
            m_sticks[size_t(i)].percent = percent;
            Q_EMIT stickProgress(m_devices.at(i), percent);
            Follow();
        });
        connect(raw, &CUsbBurnJob::imageHashed, this, [this](const QString& sha256) {
            if (!std::exchange(m_hashTold, true))
                Q_EMIT imageHashed(sha256);
        });
        connect(raw, &CUsbBurnJob::transfer, this, [this, i](const QString& text) {
            m_sticks[size_t(i)].transfer = text;
            if (i == m_shown)
                Q_EMIT transfer(text);
        });
        m_jobs.push_back(std::move(job));
    }
    for (int i = 0; i < devices.size(); ++i) {
        CUsbBurnJob::Options one = options;
        one.device = devices.at(i);
        m_jobs[size_t(i)]->Plan(one);
    }
}

void CUsbMultiBurnJob::Follow()
{
    // How far a stick is in its phase; a busy one counts as not begun.
    const auto done = [](const Stick& stick) { return stick.percent; };
    int behind = -1;
    for (int i = 0; i < int(m_sticks.size()); ++i) {
        const Stick& stick = m_sticks[size_t(i)];
        if (!stick.running)
            continue;
        if (behind < 0) {
            behind = i;
            continue;
        }
        const Stick& other = m_sticks[size_t(behind)];
        if (stick.phase < other.phase || (stick.phase == other.phase && done(stick) < done(other)))
            behind = i;
    }
    if (behind < 0)
        return;
    const Stick& stick = m_sticks[size_t(behind)];
    if (m_shownPhase != stick.phase) {
        m_shownPhase = stick.phase;
        m_shownPercent = -2;
        Q_EMIT phase(stick.phase);
    }
    if (stick.percent != m_shownPercent) {
        m_shownPercent = stick.percent;
        Progress(stick.percent, CUsbBurnJob::PhaseTitle(stick.phase));
    }
    if (behind != m_shown && !stick.transfer.isEmpty())
        Q_EMIT transfer(stick.transfer);
    m_shown = behind;
}

const UsbPlan::Decision& CUsbMultiBurnJob::Decision() const
{
    static const UsbPlan::Decision kNone;
    return m_jobs.empty() ? kNone : m_jobs.front()->Decision();
}

void CUsbMultiBurnJob::Burn()
{
    if (m_jobs.empty() || m_feeder != nullptr || IsRunning())
        return;
    Begin();
    m_feeder = std::make_shared<UsbBurn::ImageFeeder>(
        QFileInfo(m_image).absoluteFilePath(), QFileInfo(m_image).size(), int(m_jobs.size()));
    if (!m_feeder->Problem().isEmpty()) {
        const QString problem = m_feeder->Problem();
        m_feeder.reset();
        Finish(false, QStringLiteral("No USB stick was burned: ") + problem);
        return;
    }
    m_pending = int(m_jobs.size());
    m_allSucceeded = true;
    for (Stick& stick : m_sticks)
        stick.running = true;
    m_hashTold = false;
    for (size_t i = 0; i < m_jobs.size(); ++i)
        m_jobs[i]->BurnFrom(m_feeder, int(i));
    m_feeder->Start();
}

void CUsbMultiBurnJob::Stop()
{
    // Each stick's end is told as it comes; the last one ends this job.
    for (const std::unique_ptr<CUsbBurnJob>& job : m_jobs)
        job->Stop();
}

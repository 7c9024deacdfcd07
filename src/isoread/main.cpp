// brenta-isoread: lists and extracts an image through its Rock Ridge tree,
// the way the image holds it: names of any length, deep folders put back
// where the builder relocated them, symbolic links as links, mode bits and
// modification times.
//
//   brenta-isoread list IMAGE
//     The archive tool's table ("7z l" columns) between two separator lines,
//     so that Brenta reads both tools' listings alike. Folders come before
//     what they hold; a symbolic link is a file of size 0.
//   brenta-isoread extract IMAGE FOLDER [ENTRY...]
//     Writes the entries ("/" separated paths of the listing; none means
//     all) into FOLDER, recreating the folders above them, with progress
//     lines " 37% 12 - path". Each entry that cannot be written is told on a
//     line "failed: <path>: <reason>".
// Exit status: 0 done, 2 some entries failed, 1 the image cannot be read,
// 64 wrong usage. Warnings of the reader are told as "warning: <text>".
//
// The image is untrusted: every name is one path component (never "", "."
// or ".." and never holding "/"), everything is created fresh inside FOLDER
// relative to its parent's descriptor, and nothing is ever opened through a
// symbolic link, so nothing is written outside FOLDER. Names that are not
// UTF-8, or hold line ends, are shown and written with U+FFFD in place of
// each such byte, in the listing and the extraction alike.

#include <stdint.h>

#include <fcntl.h>
#include <limits.h>
#include <libisofs/libisofs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int kBlock = 2048;
// Sequential reads (file data, large folders) are read this much at a time.
constexpr int kWindow = 1 << 20;
// Deeper than this is no image anyone builds; a relocation loop would be endless.
constexpr int kMostDepth = 256;

// The image, read through a window that grows only while reading goes forward
// block after block: data is read in large pieces, scattered folders are not.
struct Source
{
    int fd = -1;
    std::vector<uint8_t> window = std::vector<uint8_t>(kWindow);
    int64_t first = -1; // block at the window's start
    int64_t blocks = 0; // blocks the window holds
    int64_t last = -2;  // the block read last
};

int sourceOpen(IsoDataSource*)
{
    return 1;
}

int sourceClose(IsoDataSource*)
{
    return 1;
}

int readBlock(IsoDataSource* data, uint32_t lba, uint8_t* buffer)
{
    Source& source = *static_cast<Source*>(data->data);
    const int64_t block = lba;
    if (block < source.first || block >= source.first + source.blocks) {
        const size_t want = block == source.last + 1 ? source.window.size() : size_t(kBlock);
        size_t got = 0;
        while (got < want) {
            const ssize_t n =
                ::pread(source.fd, source.window.data() + got, want - got, block * kBlock + got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            got += size_t(n);
        }
        if (got < size_t(kBlock)) {
            source.first = -1;
            source.blocks = 0;
            return ISO_DATA_SOURCE_MISHAP;
        }
        source.first = block;
        source.blocks = int64_t(got / kBlock);
    }
    std::memcpy(buffer, source.window.data() + (block - source.first) * kBlock, kBlock);
    source.last = block;
    return 1;
}

void freeSource(IsoDataSource* data)
{
    Source* source = static_cast<Source*>(data->data);
    ::close(source->fd);
    delete source;
}

// The name as it is shown and written: valid UTF-8 kept, every other byte,
// and every line end, replaced by U+FFFD.
std::string shownName(const char* raw)
{
    static const char kReplacement[] = "\xEF\xBF\xBD";
    std::string name;
    const auto* bytes = reinterpret_cast<const unsigned char*>(raw);
    const size_t size = std::strlen(raw);
    for (size_t i = 0; i < size;) {
        const unsigned char c = bytes[i];
        size_t length = 0;
        if (c < 0x80)
            length = (c == '\n' || c == '\r') ? 0 : 1;
        else if (c >= 0xC2 && c <= 0xDF)
            length = 2;
        else if (c >= 0xE0 && c <= 0xEF)
            length = 3;
        else if (c >= 0xF0 && c <= 0xF4)
            length = 4;
        bool valid = length > 0 && i + length <= size;
        for (size_t k = 1; valid && k < length; ++k)
            valid = (bytes[i + k] & 0xC0) == 0x80;
        if (valid && length == 3) {
            const unsigned second = bytes[i + 1];
            valid = !(c == 0xE0 && second < 0xA0) &&
                    !(c == 0xED && second >= 0xA0); // overlong, surrogates
        } else if (valid && length == 4) {
            const unsigned second = bytes[i + 1];
            valid = !(c == 0xF0 && second < 0x90) && !(c == 0xF4 && second >= 0x90);
        }
        if (valid) {
            name.append(raw + i, length);
            i += length;
        } else {
            name += kReplacement;
            ++i;
        }
    }
    return name;
}

bool safeComponent(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// One entry of the tree, as the walk meets it.
struct Node
{
    IsoFileSource* source = nullptr;
    std::string name;
    struct stat info = {};
};

class Image
{
public:
    ~Image()
    {
        if (m_fs != nullptr)
            iso_filesystem_unref(m_fs);
        if (m_options != nullptr)
            iso_read_opts_free(m_options);
    }

    // Empty when the image can be read; else why not.
    std::string Open(const char* path)
    {
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return std::string("cannot open the image: ") + std::strerror(errno);
        auto* data = new IsoDataSource{};
        data->refcount = 1;
        data->open = sourceOpen;
        data->close = sourceClose;
        data->read_block = readBlock;
        data->free_data = freeSource;
        data->data = new Source{fd};
        iso_read_opts_new(&m_options, 0);
        iso_read_opts_set_no_joliet(m_options, 1);
        iso_read_opts_set_no_iso1999(m_options, 1);
        iso_read_opts_set_no_aaip(m_options, 1);
        iso_read_opts_set_no_md5(m_options, 1);
        // Names are taken as bytes; shownName() decides what they become.
        iso_read_opts_set_input_charset(m_options, "UTF-8");
        const int result = iso_image_filesystem_new(data, m_options, 1, &m_fs);
        iso_data_source_unref(data);
        if (result < 0) {
            m_fs = nullptr;
            return std::string("not a readable image: ") + iso_error_to_msg(result);
        }
        IsoFileSource* root = nullptr;
        if (m_fs->get_root(m_fs, &root) < 0 || root == nullptr)
            return "the image's root folder cannot be read";
        m_root = root;
        return std::string();
    }

    IsoFileSource* Root() const { return m_root; }

    // The entries of a folder in the image's order; false with `why` when
    // the folder cannot be read. The caller unrefs each node's source.
    static bool Children(IsoFileSource* folder, std::vector<Node>& children, std::string& why)
    {
        const int opened = iso_file_source_open(folder);
        if (opened < 0) {
            why = iso_error_to_msg(opened);
            return false;
        }
        IsoFileSource* child = nullptr;
        int result = 0;
        while ((result = iso_file_source_readdir(folder, &child)) == 1) {
            Node node;
            node.source = child;
            char* raw = iso_file_source_get_name(child);
            node.name = shownName(raw != nullptr ? raw : "");
            std::free(raw);
            iso_file_source_lstat(child, &node.info);
            children.push_back(std::move(node));
        }
        iso_file_source_close(folder);
        // The reader hands a folder's entries out last first.
        std::reverse(children.begin(), children.end());
        if (result < 0) {
            why = iso_error_to_msg(result);
            return false;
        }
        return true;
    }

    // The folder a builder moves deep folders into: at the root, and empty
    // once they are back in place. It was never part of the tree.
    static bool RelocationFolder(const Node& node, int depth)
    {
        if (depth != 0 || !S_ISDIR(node.info.st_mode) ||
            (node.name != "rr_moved" && node.name != ".rr_moved"))
            return false;
        std::vector<Node> children;
        std::string why;
        const bool empty = Children(node.source, children, why) && children.empty();
        Release(children);
        return empty;
    }

    static void Release(std::vector<Node>& nodes)
    {
        for (Node& node : nodes)
            iso_file_source_unref(node.source);
        nodes.clear();
    }

private:
    IsoReadOpts* m_options = nullptr;
    IsoImageFilesystem* m_fs = nullptr;
    IsoFileSource* m_root = nullptr;
};

// Folders the listing could not read, told after the table.
std::vector<std::string> leftOut;

// The reader's own complaints about the image, once it is done.
void tellWarnings()
{
    for (const std::string& text : leftOut)
        std::printf("warning: %s\n", text.c_str());
    char severity[80];
    char text[4096];
    int code = 0;
    int image = 0;
    while (iso_obtain_msgs(const_cast<char*>("WARNING"), &code, &image, text, severity) > 0)
        std::printf("warning: %s\n", text);
}

std::string timeText(time_t seconds)
{
    struct tm local = {};
    char text[32] = "                   ";
    if (::localtime_r(&seconds, &local) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

// ---- list --------------------------------------------------------------

const char kSeparator[] =
    "------------------- ----- ------------ ------------  ------------------------\n";

bool listFolder(IsoFileSource* folder, const std::string& prefix, int depth)
{
    std::vector<Node> children;
    std::string why;
    const bool read = Image::Children(folder, children, why);
    if (!read)
        leftOut.push_back("the folder \"" + prefix + "\" cannot be read: " + why);
    for (Node& node : children) {
        if (Image::RelocationFolder(node, depth))
            continue;
        // A name that is no file name ("..", "a/b") is listed as it is: the
        // listing's reader leaves such paths out and says so.
        const std::string path = prefix.empty() ? node.name : prefix + '/' + node.name;
        const bool folderNode = S_ISDIR(node.info.st_mode);
        // Folders go without a size, as in the archive tool's table.
        const std::string size =
            folderNode ? std::string()
                       : std::to_string(S_ISREG(node.info.st_mode) ? node.info.st_size : 0);
        std::printf("%s %s %12s %12s  %s\n", timeText(node.info.st_mtime).c_str(),
                    folderNode ? "D...." : "....A", size.c_str(), "", path.c_str());
        if (folderNode && depth < kMostDepth && safeComponent(node.name))
            listFolder(node.source, path, depth + 1);
    }
    Image::Release(children);
    return read;
}

int list(const char* imagePath)
{
    Image image;
    const std::string wrong = image.Open(imagePath);
    if (!wrong.empty()) {
        std::printf("error: %s\n", wrong.c_str());
        return 1;
    }
    std::printf("Tree: Rock Ridge\n\n   Date      Time    Attr         Size   Compressed  Name\n");
    std::fputs(kSeparator, stdout);
    listFolder(image.Root(), std::string(), 0);
    std::fputs(kSeparator, stdout);
    tellWarnings();
    return 0;
}

// ---- extract -----------------------------------------------------------

class Extractor
{
public:
    explicit Extractor(std::vector<std::string> entries)
    {
        for (const std::string& entry : entries) {
            m_wanted.insert(entry);
            for (size_t slash = entry.find('/'); slash != std::string::npos;
                 slash = entry.find('/', slash + 1))
                m_above.insert(entry.substr(0, slash));
        }
        m_everything = entries.empty();
    }

    // Sums the bytes to write, so that progress can say how far it is.
    void Measure(IsoFileSource* folder, const std::string& prefix, bool inside, int depth)
    {
        std::vector<Node> children;
        std::string why;
        // The reader must not open a damaged folder twice: it does not
        // survive the second try.
        if (!Image::Children(folder, children, why))
            m_unreadable[prefix] = why;
        for (Node& node : children) {
            const std::string path = prefix.empty() ? node.name : prefix + '/' + node.name;
            const bool wanted = inside || m_everything || m_wanted.count(path) > 0;
            if (wanted && S_ISREG(node.info.st_mode))
                m_total += node.info.st_size;
            if (S_ISDIR(node.info.st_mode) && depth < kMostDepth &&
                (wanted || m_above.count(path) > 0))
                Measure(node.source, path, wanted, depth + 1);
        }
        Image::Release(children);
    }

    // Writes what is wanted of `folder` into the descriptor `into`.
    void Extract(IsoFileSource* folder, int into, const std::string& prefix, bool inside, int depth)
    {
        std::vector<Node> children;
        std::string why;
        if (const auto unreadable = m_unreadable.find(prefix); unreadable != m_unreadable.end()) {
            Fail(prefix, "the folder cannot be read from the image (" + unreadable->second + ")");
            return;
        }
        if (!Image::Children(folder, children, why))
            Fail(prefix, "the folder cannot be read from the image (" + why + ")");
        for (Node& node : children) {
            const std::string path = prefix.empty() ? node.name : prefix + '/' + node.name;
            const bool wanted = inside || m_everything || m_wanted.count(path) > 0;
            if (!wanted && !(S_ISDIR(node.info.st_mode) && m_above.count(path) > 0))
                continue;
            if (Image::RelocationFolder(node, depth))
                continue;
            m_found.insert(path);
            if (!safeComponent(node.name)) {
                Fail(path, "its name cannot be a file name");
                continue;
            }
            if (S_ISDIR(node.info.st_mode))
                ExtractFolder(node, into, path, wanted, depth);
            else if (!wanted)
                continue;
            else if (S_ISREG(node.info.st_mode))
                ExtractFile(node, into, path);
            else if (S_ISLNK(node.info.st_mode))
                ExtractLink(node, into, path);
            else
                Fail(path, "it is a device or another special file, which is not extracted");
        }
        Image::Release(children);
    }

    int Finish()
    {
        for (const std::string& entry : m_wanted) {
            if (m_found.count(entry) == 0)
                Fail(entry, "it is not in the image");
        }
        Progress(std::string(), true);
        return m_failures > 0 ? 2 : 0;
    }

private:
    void Fail(const std::string& path, const std::string& why)
    {
        ++m_failures;
        std::printf("failed: %s: %s\n", path.c_str(), why.c_str());
    }

    void FailErrno(const std::string& path, const char* what)
    {
        Fail(path, std::string(what) + ": " + std::strerror(errno));
    }

    static struct timespec Time(const struct stat& info) { return info.st_mtim; }

    void ExtractFolder(const Node& node, int into, const std::string& path, bool wanted, int depth)
    {
        if (depth >= kMostDepth) {
            Fail(path, "it lies deeper than any image holds folders");
            return;
        }
        if (::mkdirat(into, node.name.c_str(), 0700) != 0 && errno != EEXIST) {
            FailErrno(path, "cannot make the folder");
            return;
        }
        // An existing one is used only when it is a folder made here (the
        // image names it twice); a link in its place is never followed.
        const int fd =
            ::openat(into, node.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            FailErrno(path, "cannot open the folder");
            return;
        }
        Extract(node.source, fd, path, wanted, depth + 1);
        if (wanted) {
            const struct timespec times[2] = {Time(node.info), Time(node.info)};
            ::futimens(fd, times);
            ::fchmod(fd, node.info.st_mode & 0777);
        }
        ::close(fd);
    }

    void ExtractFile(const Node& node, int into, const std::string& path)
    {
        Progress(path, false);
        const int fd = ::openat(into, node.name.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            FailErrno(path, "cannot create the file");
            return;
        }
        std::string why;
        const int opened = iso_file_source_open(node.source);
        if (opened < 0) {
            why = std::string("cannot read it from the image (") + iso_error_to_msg(opened) + ")";
        } else {
            int64_t left = node.info.st_size;
            while (left > 0 && why.empty()) {
                const int n =
                    iso_file_source_read(node.source, m_buffer.data(),
                                         size_t(std::min<int64_t>(left, int64_t(m_buffer.size()))));
                if (n < 0) {
                    why =
                        std::string("cannot read it from the image (") + iso_error_to_msg(n) + ")";
                    break;
                }
                if (n == 0) {
                    why = "the image ends before the file does";
                    break;
                }
                for (int done = 0; done < n;) {
                    const ssize_t w = ::write(fd, m_buffer.data() + done, size_t(n - done));
                    if (w < 0 && errno == EINTR)
                        continue;
                    if (w <= 0) {
                        why = std::string("cannot write it: ") + std::strerror(errno);
                        break;
                    }
                    done += int(w);
                }
                left -= n;
                m_done += n;
                Progress(path, false);
            }
            iso_file_source_close(node.source);
        }
        if (why.empty()) {
            const struct timespec times[2] = {Time(node.info), Time(node.info)};
            ::fchmod(fd, node.info.st_mode & 0777);
            ::futimens(fd, times);
        }
        if (::close(fd) != 0 && why.empty())
            why = std::string("cannot write it: ") + std::strerror(errno);
        if (!why.empty()) {
            ::unlinkat(into, node.name.c_str(), 0);
            Fail(path, why);
        }
    }

    void ExtractLink(const Node& node, int into, const std::string& path)
    {
        std::vector<char> target(PATH_MAX + 1);
        const int read = iso_file_source_readlink(node.source, target.data(), target.size());
        if (read < 0) {
            Fail(path, std::string("its target cannot be read (") + iso_error_to_msg(read) + ")");
            return;
        }
        if (::symlinkat(target.data(), into, node.name.c_str()) != 0) {
            FailErrno(path, "cannot make the symbolic link");
            return;
        }
        const struct timespec times[2] = {Time(node.info), Time(node.info)};
        ::utimensat(into, node.name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }

    // At most ten lines a second, and one at the end.
    void Progress(const std::string& path, bool last)
    {
        if (!path.empty())
            ++m_files;
        const auto now = std::chrono::steady_clock::now();
        if (!last && now - m_told < std::chrono::milliseconds(100))
            return;
        m_told = now;
        const int percent = m_total > 0 ? int(m_done * 100 / m_total) : (last ? 100 : 0);
        std::printf("%3d%% %lld%s%s\n", percent, m_files, path.empty() ? "" : " - ", path.c_str());
        std::fflush(stdout);
    }

    std::set<std::string> m_wanted;
    std::set<std::string> m_above;
    std::set<std::string> m_found;
    std::map<std::string, std::string> m_unreadable; // folder → why, found while measuring
    bool m_everything = false;
    int64_t m_total = 0;
    int64_t m_done = 0;
    long long m_files = 0;
    int m_failures = 0;
    std::chrono::steady_clock::time_point m_told{};
    std::vector<char> m_buffer = std::vector<char>(kWindow);
};

int extract(const char* imagePath, const char* folderPath, std::vector<std::string> entries)
{
    Image image;
    const std::string wrong = image.Open(imagePath);
    if (!wrong.empty()) {
        std::printf("error: %s\n", wrong.c_str());
        return 1;
    }
    const int folder = ::open(folderPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) {
        std::printf("error: cannot open %s: %s\n", folderPath, std::strerror(errno));
        return 1;
    }
    Extractor extractor(std::move(entries));
    extractor.Measure(image.Root(), std::string(), false, 0);
    extractor.Extract(image.Root(), folder, std::string(), false, 0);
    const int status = extractor.Finish();
    tellWarnings();
    ::close(folder);
    std::printf("%s\n", status == 0 ? "Everything is Ok" : "Some entries were not extracted");
    return status;
}

int usage()
{
    std::fputs("usage: brenta-isoread list IMAGE\n"
               "       brenta-isoread extract IMAGE FOLDER [ENTRY...]\n",
               stderr);
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    std::setlocale(LC_ALL, "C.UTF-8");
    static char buffer[1 << 16];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    if (iso_init() < 0) {
        std::printf("error: the image reader cannot start\n");
        return 1;
    }
    iso_set_msgs_severities(const_cast<char*>("WARNING"), const_cast<char*>("NEVER"),
                            const_cast<char*>("brenta-isoread"));
    int status = 0;
    if (argc == 3 && std::strcmp(argv[1], "list") == 0)
        status = list(argv[2]);
    else if (argc >= 4 && std::strcmp(argv[1], "extract") == 0)
        status = extract(argv[2], argv[3], std::vector<std::string>(argv + 4, argv + argc));
    else
        return usage();
    std::fflush(stdout);
    iso_finish();
    return status;
}

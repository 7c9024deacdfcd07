#include "tools/outputsplitter.h"

#include <QString>

#include <algorithm>
#include <utility>

namespace {

// Never cut inside a UTF-8 sequence: back off to the start of the character
// that byte `cut` belongs to. `cut` must be a valid index.
qsizetype utf8SafeCut(const QByteArray& bytes, qsizetype cut)
{
    qsizetype at = cut;
    while (at > 0 && (static_cast<unsigned char>(bytes.at(at)) & 0xC0) == 0x80)
        --at;
    return at > 0 ? at : cut;
}

bool isBreak(char c)
{
    return c == '\n' || c == '\r' || c == '\b';
}

} // namespace

QStringList OutputSplitter::Feed(const QByteArray& chunk)
{
    QStringList out;
    const char* data = chunk.constData();
    const qsizetype size = chunk.size();
    qsizetype start = 0;
    while (start < size) {
        qsizetype end = start;
        while (end < size && !isBreak(data[end]))
            ++end;
        m_pending.append(data + start, end - start);
        while (m_pending.size() > MaxLineBytes) {
            const qsizetype cut = utf8SafeCut(m_pending, MaxLineBytes);
            Emit(m_pending.left(cut), out);
            m_pending.remove(0, cut);
        }
        if (end == size)
            break;
        // A line feed stays with its line; "\r" and a run of backspaces only
        // end it (the rest of a run finds an empty line and is dropped).
        if (data[end] == '\n')
            m_pending.append('\n');
        Emit(std::exchange(m_pending, {}), out);
        start = end + 1;
    }
    return out;
}

QStringList OutputSplitter::Finish()
{
    QStringList out;
    Emit(std::exchange(m_pending, {}), out);
    return out;
}

void OutputSplitter::Emit(QByteArray line, QStringList& out)
{
    const bool blank = std::all_of(line.cbegin(), line.cend(), [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
    });
    if (blank)
        return;
    out.append(QString::fromLocal8Bit(line));
}

#include "tools/outputsplitter.h"

#include <QString>

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

} // namespace

QStringList OutputSplitter::Feed(const QByteArray& chunk)
{
    QStringList out;
    for (const char c : chunk) {
        if (c == '\n') {
            m_pending.append(c);
            Emit(std::exchange(m_pending, {}), out);
        } else if (c == '\r' || c == '\b') {
            // A run of backspaces arrives as one break: the first one ends the
            // figure, the rest find an empty line and are dropped as blank.
            Emit(std::exchange(m_pending, {}), out);
        } else {
            m_pending.append(c);
            if (m_pending.size() > MaxLineBytes) {
                const qsizetype cut = utf8SafeCut(m_pending, MaxLineBytes);
                Emit(m_pending.left(cut), out);
                m_pending.remove(0, cut);
            }
        }
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
    if (line.trimmed().isEmpty())
        return;
    out.append(QString::fromLocal8Bit(line));
}

#pragma once

#include <QByteArray>
#include <QStringList>

// Cuts a tool's raw output into the lines a page parses.
//
// Tools redraw progress in place: most write "\r" between figures, the archive
// tool erases its figure with a run of backspaces. Both count as line breaks
// here, like "\n". A line feed stays at the end of its line; "\r" and "\b" are
// dropped. Lines that are blank after trimming are not returned. A line still
// open at the end of a chunk is carried over to the next one, and a line longer
// than MaxLineBytes is handed out in pieces of at most that many bytes.
class OutputSplitter final
{
public:
    static constexpr int MaxLineBytes = 2047;

    // Returns the lines completed by this chunk, in order.
    QStringList Feed(const QByteArray& chunk);
    // Returns what is left once the tool has ended (an unterminated last line).
    QStringList Finish();

private:
    void Emit(QByteArray line, QStringList& out);

    QByteArray m_pending;
};

#include <QtTest>

#include "tools/outputsplitter.h"

class TestOutputSplitter final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void splits_data();
    void splits();
    void cutsLongLinesWithoutBreakingCharacters();
};

void TestOutputSplitter::splits_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QStringList>("lines");

    // Progress redrawn in place: three figures in one read give three lines,
    // and the line feed left alone after the last "\r" is dropped as blank.
    QTest::newRow("carriage returns")
        << QByteArray(" 10%\r 20%\r 30%\r\n") << QStringList{" 10%", " 20%", " 30%"};
    // A plain line keeps its line feed, as the page receives it.
    QTest::newRow("plain line keeps line feed")
        << QByteArray("Scanning\n") << QStringList{"Scanning\n"};
    // The archive tool erases each figure with a run of backspaces and blanks
    // and writes no line end between figures.
    QTest::newRow("backspace runs") << QByteArray("  5% 3 - a.txt\b\b\b\b\b\b\b\b\b\b\b\b\b\b"
                                                  "              \b\b\b\b\b\b\b\b\b\b\b\b\b\b"
                                                  " 40% 7 - b.txt\b\b\b\b")
                                    << QStringList{"  5% 3 - a.txt", " 40% 7 - b.txt"};
    QTest::newRow("blank lines dropped")
        << QByteArray("\n\n   \n\t\nend\n\n") << QStringList{"end\n"};
    QTest::newRow("crlf") << QByteArray("one\r\ntwo\r\n") << QStringList{"one", "two"};
    QTest::newRow("leading blanks kept")
        << QByteArray("   indented\n") << QStringList{"   indented\n"};
    QTest::newRow("unterminated tail waits for the end")
        << QByteArray("done\npartial") << QStringList{"done\n"};
    QTest::newRow("figures and a tail")
        << QByteArray("Writing:  12.5%\rWriting:  50%\r\nTotal 4096 bytes\nlast words")
        << QStringList{"Writing:  12.5%", "Writing:  50%", "Total 4096 bytes\n"};
}

// Pipes deliver output in arbitrary pieces: a line or a figure cut by a read
// must still arrive whole, and the tail must come out when the tool ends.
void TestOutputSplitter::splits()
{
    QFETCH(QByteArray, output);
    QFETCH(QStringList, lines);
    OutputSplitter whole;
    QCOMPARE(whole.Feed(output), lines);
    const QStringList tail = whole.Finish();
    for (int size = 1; size <= 7; ++size) {
        OutputSplitter splitter;
        QStringList pieces;
        for (int at = 0; at < output.size(); at += size)
            pieces << splitter.Feed(output.mid(at, size));
        QCOMPARE(pieces << splitter.Finish(), lines + tail);
    }
}

void TestOutputSplitter::cutsLongLinesWithoutBreakingCharacters()
{
    // 3000 bytes of two-byte characters: pieces must not exceed the limit and
    // must not split a character, so that the text survives intact.
    const QString text(1500, QChar(0x00e9));
    OutputSplitter splitter;
    QStringList pieces = splitter.Feed(text.toUtf8() + '\n');
    pieces << splitter.Finish();
    QVERIFY(pieces.size() >= 2);
    QString joined;
    for (const QString& piece : pieces) {
        QVERIFY(piece.toUtf8().size() <= OutputSplitter::MaxLineBytes + 1);
        joined += piece;
    }
    QCOMPARE(joined, text + QLatin1Char('\n'));
}

QTEST_GUILESS_MAIN(TestOutputSplitter)
#include "tst_outputsplitter.moc"

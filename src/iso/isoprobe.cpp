#include "iso/isoprobe.h"

#include <QFile>

namespace IsoProbe {

namespace {

constexpr qint64 kSector = 2048;
// Volume descriptors and UDF's recognition sequence follow sector 16; an image
// with more than this many is not one anybody builds.
constexpr int kMostDescriptors = 32;

quint32 le32(const QByteArray& bytes, int at)
{
    const auto* b = reinterpret_cast<const uchar*>(bytes.constData() + at);
    return quint32(b[0]) | quint32(b[1]) << 8 | quint32(b[2]) << 16 | quint32(b[3]) << 24;
}

QByteArray readAt(QFile& file, qint64 offset, qint64 length)
{
    if (!file.seek(offset))
        return QByteArray();
    QByteArray bytes = file.read(length);
    return bytes.size() == length ? bytes : QByteArray();
}

// True when the first record of the root folder (its "." entry) starts a
// System Use area with Rock Ridge entries: the SUSP "SP" mark, or one of the
// entries every Rock Ridge builder writes there.
bool rootHasRockRidge(QFile& file, const QByteArray& primary)
{
    // The root's directory record sits at byte 156 of the primary descriptor.
    const quint32 extent = le32(primary, 156 + 2);
    const QByteArray sector = readAt(file, qint64(extent) * kSector, kSector);
    if (sector.isEmpty())
        return false;
    const int recordLength = uchar(sector[0]);
    const int nameLength = uchar(sector[32]);
    if (recordLength < 34 || recordLength > sector.size())
        return false;
    int at = 33 + nameLength + ((nameLength % 2 == 0) ? 1 : 0);
    while (at + 4 <= recordLength) {
        const QByteArray signature = sector.mid(at, 2);
        const int length = uchar(sector[at + 2]);
        if (signature == "SP" || signature == "RR" || signature == "PX" || signature == "NM")
            return true;
        if (length < 4)
            break;
        at += length;
    }
    return false;
}

} // namespace

Trees Read(const QString& image)
{
    Trees trees;
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly))
        return trees;
    QByteArray primary;
    for (int index = 0; index < kMostDescriptors; ++index) {
        const QByteArray descriptor = readAt(file, (16 + index) * kSector, kSector);
        if (descriptor.isEmpty())
            break;
        const QByteArray id = descriptor.mid(1, 5);
        const uchar type = uchar(descriptor[0]);
        if (id == "CD001") {
            if (type == 1 && primary.isEmpty())
                primary = descriptor;
            else if (type == 2 && descriptor[88] == '%' && descriptor[89] == '/' &&
                     (descriptor[90] == '@' || descriptor[90] == 'C' || descriptor[90] == 'E'))
                trees.joliet = true;
            else if (type == 255)
                continue; // the terminator; UDF's sequence may follow
        } else if (id == "NSR02" || id == "NSR03") {
            trees.udf = true;
        } else if (id != "BEA01" && id != "TEA01" && id != "BOOT2" && id != "CDW02") {
            break;
        }
    }
    trees.iso9660 = !primary.isEmpty();
    trees.rockRidge = trees.iso9660 && rootHasRockRidge(file, primary);
    return trees;
}

QString TreeName(const Trees& trees, bool openedAsUdf)
{
    if (openedAsUdf)
        return QStringLiteral("UDF");
    if (trees.joliet)
        return QStringLiteral("Joliet");
    return QStringLiteral("ISO 9660");
}

} // namespace IsoProbe

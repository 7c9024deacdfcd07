#pragma once

#include <QString>

// What an image's volume descriptors and root folder say about the trees it
// holds, read from a few sectors. It decides which reader lists and extracts
// the image: the Rock Ridge tree is read exactly by Brenta's own reader, the
// others by the archive tool.
namespace IsoProbe {

struct Trees
{
    bool iso9660 = false;   // a primary volume descriptor
    bool rockRidge = false; // its root folder carries Rock Ridge entries
    bool joliet = false;    // a supplementary descriptor with a Joliet escape
    bool udf = false;       // a UDF volume recognition sequence
};

// Reads `image`; all false when it cannot be read or is no ISO 9660 image.
Trees Read(const QString& image);

// "Rock Ridge", "UDF", "Joliet" or "ISO 9660": the tree the reader shows,
// given whether the archive tool opened the image as UDF.
QString TreeName(const Trees& trees, bool openedAsUdf);

} // namespace IsoProbe

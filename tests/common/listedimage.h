#pragma once

#include <QSignalSpy>
#include <QStringList>

#include <functional>

#include "iso/isojobs.h"
#include "iso/itemtree.h"

// What the archive tool lists of an image, one line per entry in tree order,
// each entry written by `line`; a single "listing failed: ..." line when the
// image cannot be listed.
inline QStringList ListedImage(const QString& image,
                               const std::function<QString(const Item&)>& line)
{
    ItemTree tree;
    CListJob job(tree);
    QSignalSpy finished(&job, &CListJob::finished);
    job.Start(image);
    if (!finished.wait(60000) || !job.Succeeded())
        return {QStringLiteral("listing failed: ") + job.Message()};
    QStringList lines;
    std::function<void(const Item&)> walk = [&](const Item& folder) {
        for (const auto& child : folder.children) {
            lines << line(*child);
            walk(*child);
        }
    };
    walk(tree.Root());
    return lines;
}

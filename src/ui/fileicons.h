#pragma once

#include <QIcon>
#include <QString>

// The desktop's icon and type description for a file name, judged by its
// extension and asked once per extension for the life of the program.
namespace FileIcons {

QIcon Icon(const QString& fileName);
QString Type(const QString& fileName);
QIcon Folder();

} // namespace FileIcons

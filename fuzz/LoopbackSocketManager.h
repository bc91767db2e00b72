#pragma once

#include <QByteArray>
#include <QList>

// Frames the engine wrote since the harness last took them.
QList<QByteArray> &sentFrames();

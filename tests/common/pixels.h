// Pictures compared pixel by pixel: the picture tier's offscreen grabs and the e2e tier's
// screen, against the same reviewed references.
#pragma once

#include <QImage>
#include <QString>

#include <algorithm>

// How many pixels of `actual` are off from `expected` by more than `tolerance` in a channel,
// -1 for another size. With `marks`: those pixels in red on a faded copy of `expected`.
inline int differingPixels(const QImage &actual, QImage expected, int tolerance,
                           QImage *marks = nullptr)
{
    int differing = actual.size() == expected.size() ? 0 : -1;
    for (int i = 0; differing >= 0 && i < expected.width() * expected.height(); ++i) {
        const int x = i % expected.width(), y = i / expected.width();
        const QRgb p = actual.pixel(x, y), q = expected.pixel(x, y), g = 128 + qGray(q) / 2;
        const bool off =
            std::max({qAbs(qAlpha(p) - qAlpha(q)), qAbs(qRed(p) - qRed(q)),
                      qAbs(qGreen(p) - qGreen(q)), qAbs(qBlue(p) - qBlue(q))}) > tolerance;
        expected.setPixel(x, y, off ? qRgb(255, 0, 0) : qRgb(g, g, g)), differing += off;
    }
    if (marks)
        *marks = expected;
    return differing;
}

// "" when `actual` matches `reference` within 8 per channel (room for rounding, none for a
// changed colour); else how many pixels differ, with out-actual.png and out-diff.png written.
inline QString pictureDifference(const QImage &actual, const QImage &reference, const QString &out)
{
    if (reference.isNull())
        return "no reference for " + out;
    QImage diff;
    const QImage a = actual.convertToFormat(QImage::Format_ARGB32);
    const int differing =
        differingPixels(a, reference.convertToFormat(QImage::Format_ARGB32), 8, &diff);
    if (!differing)
        return QString();
    a.save(out + "-actual.png") && (differing < 0 || diff.save(out + "-diff.png"));
    return QString("%1 pixels differ (-1: another size); see %2-diff.png, %2-actual.png")
        .arg(differing)
        .arg(out);
}

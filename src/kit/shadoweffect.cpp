#include "kit/shadoweffect.h"

#include <QFrame>
#include <QPaintDevice>
#include <QPainter>
#include <QRect>
#include <QTransform>
#include <QWidget>

#include <array>
#include <cmath>

namespace {

// Half the small frame's length. The blur's exponential tail is far below one alpha step
// this far from an edge, so the tile's middle row and column equal those of any longer frame.
constexpr int kHalfSpan = 48;

// The shortest length, in device-independent pixels, that is an even number of them and an
// even number of device pixels: frames whose lengths differ by it lie the same way on the
// pixel grid that Qt halves before blurring. 0 for a scale with no such length.
int gridStep(qreal dpr)
{
    for (int s = 2; s <= 64; s += 2) {
        const qreal half = s * dpr / 2;
        if (std::abs(half - std::round(half)) < 1e-6)
            return s;
    }
    return 0;
}

// The small frame's length for a frame of the given length; 0 when the frame is no longer.
int tileLength(int length, int step)
{
    const int base = 2 * kHalfSpan;
    const int tile = base + ((length - base) % step + step) % step;
    return tile < length ? tile : 0;
}

// Cuts along one axis, in device-independent pixels, of the tile and of the target: the
// tile's start up to the cut as it is, one grid step at the cut stretched, the rest as it is.
struct Cuts
{
    std::array<int, 4> source;
    std::array<int, 4> target;
};

Cuts cutsFor(int tileLength, int targetLength, int middle, int step)
{
    const int cut = middle / (step / 2) * (step / 2);
    const int end = cut + step / 2;
    return {{0, cut, end, tileLength}, {0, cut, targetLength - (tileLength - end), targetLength}};
}

} // namespace

ShadowEffect::ShadowEffect(const QString &frameStyle, QObject *parent)
    : QGraphicsDropShadowEffect(parent), m_frameStyle(frameStyle)
{
    const auto forgetTile = [this] { m_tile = QImage(); };
    connect(this, &QGraphicsDropShadowEffect::offsetChanged, this, forgetTile);
    connect(this, &QGraphicsDropShadowEffect::blurRadiusChanged, this, forgetTile);
    connect(this, &QGraphicsDropShadowEffect::colorChanged, this, forgetTile);
}

QImage ShadowEffect::renderReference(const QSize &frameSize, qreal dpr) const
{
    const QRect bounds = boundingRectFor(QRectF(QPointF(0, 0), frameSize)).toAlignedRect();
    QWidget host;
    host.resize(bounds.size());
    auto *frame = new QFrame(&host);
    frame->setStyleSheet(m_frameStyle);
    frame->setGeometry(QRect(-bounds.topLeft(), frameSize));
    auto *shadow = new QGraphicsDropShadowEffect(frame);
    shadow->setOffset(offset());
    shadow->setColor(color());
    shadow->setBlurRadius(blurRadius());
    frame->setGraphicsEffect(shadow);
    frame->show();

    QImage image(bounds.size() * dpr, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(dpr);
    image.fill(Qt::transparent);
    host.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

void ShadowEffect::draw(QPainter *painter)
{
    const qreal dpr = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    const QRect frame = sourceBoundingRect(Qt::DeviceCoordinates).toAlignedRect();
    const int step = gridStep(dpr);
    const QSize tileFrame =
        step ? QSize(tileLength(frame.width(), step), tileLength(frame.height(), step)) : QSize();
    if (painter->worldTransform().type() > QTransform::TxTranslate || tileFrame.isEmpty()) {
        QGraphicsDropShadowEffect::draw(painter);
        return;
    }

    if (m_tile.isNull() || m_tileFrame != tileFrame || !qFuzzyCompare(m_tileDpr, dpr)) {
        m_tile = renderReference(tileFrame, dpr);
        m_tileFrame = tileFrame;
        m_tileDpr = dpr;
    }

    // Every cut lies on a whole device-independent pixel that is also a whole device pixel,
    // so the corners are copied pixel for pixel; the stretched middle slices are uniform along
    // the stretch, and without smoothing they are repeated exactly.
    const QRect bounds = boundingRectFor(QRectF(frame)).toAlignedRect();
    const QRect tileBounds = boundingRectFor(QRectF(QPointF(0, 0), tileFrame)).toAlignedRect();
    const Cuts x = cutsFor(tileBounds.width(), bounds.width(),
                           tileFrame.width() / 2 - tileBounds.left(), step);
    const Cuts y = cutsFor(tileBounds.height(), bounds.height(),
                           tileFrame.height() / 2 - tileBounds.top(), step);

    // Drawn in device pixels: the scale that undoes the device's leaves a plain copy.
    const QPointF origin(bounds.left() * dpr, bounds.top() * dpr);
    painter->save();
    painter->setWorldTransform(QTransform::fromScale(1 / dpr, 1 / dpr));
    painter->setRenderHint(QPainter::SmoothPixmapTransform, false);
    for (std::size_t i = 0; i < 3; ++i) {
        for (std::size_t j = 0; j < 3; ++j) {
            const QRectF source(x.source[i] * dpr, y.source[j] * dpr,
                                (x.source[i + 1] - x.source[i]) * dpr,
                                (y.source[j + 1] - y.source[j]) * dpr);
            const QRectF target(origin.x() + x.target[i] * dpr, origin.y() + y.target[j] * dpr,
                                (x.target[i + 1] - x.target[i]) * dpr,
                                (y.target[j + 1] - y.target[j]) * dpr);
            painter->drawImage(target, m_tile, source);
        }
    }
    painter->restore();
}

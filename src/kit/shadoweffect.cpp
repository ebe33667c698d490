#include "kit/shadoweffect.h"

#include <QEvent>
#include <QLabel>
#include <QPaintDevice>
#include <QPaintEvent>
#include <QPainter>
#include <QPixmap>
#include <QRect>
#include <QTransform>
#include <QWidget>

#include <array>
#include <cmath>
#include <utility>

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

ShadowEffect::ShadowEffect(QWidget *frame, QObject *parent)
    : QGraphicsDropShadowEffect(parent), m_frame(frame)
{
    frame->installEventFilter(this);
    if (QWidget *window = frame->parentWidget())
        window->installEventFilter(this);
    const auto forgetTile = [this] { m_tile = QImage(); };
    connect(this, &QGraphicsDropShadowEffect::offsetChanged, this, forgetTile);
    connect(this, &QGraphicsDropShadowEffect::blurRadiusChanged, this, forgetTile);
    connect(this, &QGraphicsDropShadowEffect::colorChanged, this, forgetTile);
}

void ShadowEffect::sourceChanged(ChangeFlags flags)
{
    if (flags & SourceInvalidated)
        m_tile = QImage();
    QGraphicsDropShadowEffect::sourceChanged(flags);
}

// A widget source never reports SourceInvalidated: what changes a frame's look is watched
// on the frame itself.
bool ShadowEffect::eventFilter(QObject *watched, QEvent *event)
{
    if (watched != m_frame) {
        if (event->type() == QEvent::Paint)
            m_repaint = static_cast<QPaintEvent *>(event)->region().translated(-m_frame->pos());
        return QGraphicsDropShadowEffect::eventFilter(watched, event);
    }
    switch (event->type()) {
    case QEvent::StyleChange:
    case QEvent::PaletteChange:
    case QEvent::FontChange:
    case QEvent::ChildAdded:
    case QEvent::ChildRemoved:
        m_tile = QImage();
        break;
    default:
        break;
    }
    return QGraphicsDropShadowEffect::eventFilter(watched, event);
}

QImage ShadowEffect::renderWithQtEffect(QWidget *content, qreal dpr) const
{
    const QSize contentSize = content->size();
    const QRect bounds = boundingRectFor(QRectF(QPointF(0, 0), contentSize)).toAlignedRect();
    QWidget host;
    host.resize(bounds.size());
    content->setParent(&host);
    content->setGeometry(QRect(-bounds.topLeft(), contentSize));
    auto *shadow = new QGraphicsDropShadowEffect(content);
    shadow->setOffset(offset());
    shadow->setColor(color());
    shadow->setBlurRadius(blurRadius());
    content->setGraphicsEffect(shadow);
    content->show();

    QImage image(bounds.size() * dpr, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(dpr);
    image.fill(Qt::transparent);
    host.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image;
}

// The frame as it is, cut down to the tile's size: its four corners, the middle left out.
// The shift of the far half is a whole grid step, so every pixel keeps its place on the grid.
QImage ShadowEffect::smallFrame(const QSize &tileFrame, qreal dpr)
{
    QImage whole = sourcePixmap(Qt::DeviceCoordinates, nullptr, QGraphicsEffect::NoPad)
                       .toImage()
                       .convertToFormat(QImage::Format_ARGB32_Premultiplied);
    whole.setDevicePixelRatio(1); // copied pixel for pixel
    const QRect frame = sourceBoundingRect(Qt::DeviceCoordinates).toAlignedRect();
    if (whole.size() != frame.size() * dpr)
        return QImage(); // clipped by the device: not the whole frame
    const QSize small = tileFrame * dpr;
    const QPoint cut(small.width() / 2, small.height() / 2);
    const QPoint shift(whole.width() - small.width(), whole.height() - small.height());
    QImage out(small, QImage::Format_ARGB32_Premultiplied);
    out.fill(Qt::transparent);
    QPainter painter(&out);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    for (const QRect &part : {QRect(QPoint(0, 0), QPoint(cut.x() - 1, cut.y() - 1)),
                              QRect(QPoint(cut.x(), 0), QPoint(small.width() - 1, cut.y() - 1)),
                              QRect(QPoint(0, cut.y()), QPoint(cut.x() - 1, small.height() - 1)),
                              QRect(cut, QPoint(small.width() - 1, small.height() - 1))}) {
        const QPoint from(part.left() < cut.x() ? 0 : shift.x(),
                          part.top() < cut.y() ? 0 : shift.y());
        painter.drawImage(part.topLeft(), whole, part.translated(from));
    }
    painter.end();
    out.setDevicePixelRatio(dpr);
    return out;
}

// Qt draws an effect over the bounding rectangle of the region it repaints, while the widgets
// above the frame repaint only the region itself: unclipped, the backing would paint over
// whatever of the content lies between two small updates (a hovered button and the close
// button), and darken the translucent margin there a second time.
void ShadowEffect::draw(QPainter *painter)
{
    const std::optional<QRegion> repaint = std::exchange(m_repaint, std::nullopt);
    painter->save();
    if (repaint)
        painter->setClipRegion(*repaint, Qt::IntersectClip);
    drawShadow(painter);
    painter->restore();
}

void ShadowEffect::drawShadow(QPainter *painter)
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
        const QImage small = smallFrame(tileFrame, dpr);
        if (small.isNull()) {
            QGraphicsDropShadowEffect::draw(painter);
            return;
        }
        auto *frameImage = new QLabel;
        frameImage->setPixmap(QPixmap::fromImage(small));
        frameImage->resize(tileFrame);
        m_tile = renderWithQtEffect(frameImage, dpr);
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
}

// The drop shadow under every window's backing frame. Qt's effect renders the whole frame and
// blurs it, in three window-sized images, on every repaint of anything above it (each
// progress step); this one blurs a small frame of the same look once and stretches it.
#pragma once

#include <QGraphicsDropShadowEffect>
#include <QImage>
#include <QSize>
#include <QString>

class ShadowEffect final : public QGraphicsDropShadowEffect
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ShadowEffect)

public:
    // frameStyle: the style sheet of the frame the effect is set on; the small copy is drawn
    // with it.
    explicit ShadowEffect(const QString &frameStyle, QObject *parent = nullptr);

    // The shadowed frame as Qt's own effect draws it, on a transparent image of the effect's
    // bounding size: the reference the stretched tile is cut from.
    QImage renderReference(const QSize &frameSize, qreal dpr) const;

protected:
    void draw(QPainter *painter) override;

private:
    QString m_frameStyle;
    QImage m_tile;     // null until drawn and after any change of the shadow's properties
    QSize m_tileFrame; // the small frame's size in device-independent pixels
    qreal m_tileDpr = 0;
};

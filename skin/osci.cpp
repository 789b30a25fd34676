// SPDX-License-Identifier: GPL-3.0-or-later
#include "osci.h"

#include <chrono>
#include <cstdlib>

#include <QPainter>
#include <QPolygon>
#include <QTimerEvent>

#include "SkinPaint.h"
#include "mlog.h"

namespace larimo {

OSCI::OSCI(QWidget* parent, int ctrlId) : QWidget(parent), m_ctrlId(ctrlId)
{
    LogScopeInfo("OSCI::OSCI");
    setProperty("ctrlId", ctrlId);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

OSCI::~OSCI()
{
    LogScopeInfo("OSCI::~OSCI");
    ClearData();
}

void OSCI::SetData(const std::int16_t* samples, std::size_t count)
{
    if (samples == nullptr || count == 0)
        return;
    std::vector<std::int16_t> block(samples, samples + count);
    const std::lock_guard lock(m_queueLock);
    m_queue.push_back(std::move(block));
}

void OSCI::ClearData()
{
    const std::lock_guard lock(m_queueLock);
    m_queue.clear();
}

std::size_t OSCI::QueuedSamples() const
{
    const std::lock_guard lock(m_queueLock);
    std::size_t total = 0;
    for (const auto& block : m_queue)
        total += block.size();
    return total;
}

bool OSCI::parseSkin(CSkinParser& parser, const std::string& section, int /*id*/)
{
    if (!parser.FindObject(section))
        return false;
    m_position = pos();
    m_size = size();
    while (parser.NextKey()) {
        int a = 0;
        int b = 0;
        ColorRef color = 0;
        if (parser.GetSize("position", a, b))
            m_position = QPoint(a, b);
        else if (parser.GetSize("size", a, b))
            m_size = QSize(a, b);
        else if (parser.GetRegion("region", m_region)) {
        } else if (parser.GetColor("color_background", color))
            m_background = ToQColor(color);
        else if (parser.GetColor("color_foreground", color))
            m_trace = ToQColor(color);
    }
    return ApplySkin();
}

bool OSCI::ApplySkin()
{
    setGeometry(QRect(m_position, m_size));
    if (!m_region.IsNull())
        setMask(m_region.Region());
    update();
    return true;
}

std::vector<int> OSCI::Resample(const std::vector<std::int16_t>& samples, int width)
{
    if (width <= 0)
        return {};
    std::vector<int> out(static_cast<std::size_t>(width), 0);
    const std::size_t n = samples.size();
    const auto w = static_cast<std::size_t>(width);
    if (n == 0)
        return out;
    if (n <= w) {
        const std::size_t k = w / n;
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t j = 0; j < k; ++j)
                out[i * k + j] = samples[i] / static_cast<int>(k);
        }
    } else {
        const std::size_t k = n / w;
        for (std::size_t i = 0; i < w; ++i) {
            int sum = 0;
            for (std::size_t j = 0; j < k; ++j)
                sum += samples[i * k + j] / static_cast<int>(k);
            out[i] = sum;
        }
    }
    return out;
}

int OSCI::TraceY(int value, int traceHeight)
{
    const long long scaled = static_cast<long long>(value) * traceHeight / 2 / 32767;
    return traceHeight / 2 + static_cast<int>(scaled);
}

// The pixels of a polyline through `points`, one per step along the longer axis of each
// segment. Qt's own aliased lines may stray a pixel past steep ends; the trace must stay
// within the rows its values name.
QPolygon OSCI::TracePixels(const QPolygon& points)
{
    QPolygon pixels;
    if (points.isEmpty())
        return pixels;
    pixels.reserve(points.size() * 2);
    for (int i = 1; i < points.size(); ++i) {
        const QPoint a = points[i - 1];
        const QPoint b = points[i];
        const int dx = std::abs(b.x() - a.x());
        const int dy = std::abs(b.y() - a.y());
        const int sx = a.x() < b.x() ? 1 : -1;
        const int sy = a.y() < b.y() ? 1 : -1;
        int error = dx - dy;
        QPoint p = a;
        while (p != b) {
            pixels.append(p);
            const int twice = 2 * error;
            if (twice > -dy) {
                error -= dy;
                p.rx() += sx;
            }
            if (twice < dx) {
                error += dx;
                p.ry() += sy;
            }
        }
    }
    pixels.append(points.back());
    return pixels;
}

void OSCI::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != m_timer) {
        QWidget::timerEvent(event);
        return;
    }
    update();
    // Nothing consumes the queue while the window is hidden; keep it from growing.
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch()).count();
    const long long now = millis / 1000;
    if (now - m_lastPurge > kPurgeAfterSeconds) {
        m_lastPurge = now;
        ClearData();
    }
}

void OSCI::paintEvent(QPaintEvent* /*event*/)
{
    if (m_timer == 0)
        m_timer = startTimer(kRepaintIntervalMs);

    const int w = width();
    const int h = height() - 2;
    const int mid = h / 2;
    QPainter painter(this);
    painter.fillRect(rect(), m_background);
    if (w <= 0)
        return;
    // A one-pixel line that ends where its points are, like the system's own pens.
    QPen pen(m_trace, 1, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin);
    pen.setCosmetic(true);
    painter.setPen(pen);
    painter.drawLine(0, mid, w, mid);

    const std::lock_guard lock(m_queueLock);
    std::vector<std::int16_t> joined;
    for (const auto& block : m_queue)
        joined.insert(joined.end(), block.begin(), block.end());
    if (!joined.empty()) {
        const std::vector<int> values = Resample(joined, w);
        QPolygon line(w);
        for (int x = 0; x < w; ++x)
            line[x] = QPoint(x, TraceY(values[static_cast<std::size_t>(x)], h));
        painter.drawPoints(TracePixels(line));
    }
    m_queue.clear();
}

} // namespace larimo

// SPDX-License-Identifier: GPL-3.0-or-later
// Paints Larimo's shipped skins: the background, every state bitmap, the regions and the
// pointer, and writes the skin definition that places them. Run it after changing a skin's
// look and commit what it writes:
//   QT_QPA_PLATFORM=offscreen larimo-skinpainter data/skins/en
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numbers>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include "DynRgn.h"

namespace larimo {
namespace {

// ---------------------------------------------------------------- files

void PutU16(std::vector<std::uint8_t>& out, unsigned value)
{
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void PutU32(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void WriteFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::fprintf(stderr, "skinpainter: cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

int Distance(QRgb a, QRgb b)
{
    const int dr = qRed(a) - qRed(b);
    const int dg = qGreen(a) - qGreen(b);
    const int db = qBlue(a) - qBlue(b);
    return 3 * dr * dr + 4 * dg * dg + 2 * db * db;
}

// Median cut over the image's colours, weighted by how often each occurs: skins are mostly
// flat panels, so 256 well-chosen colours reproduce them without visible loss.
std::vector<QRgb> Palette(const QImage& image)
{
    std::unordered_map<QRgb, std::uint32_t> histogram;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            ++histogram[line[x] | 0xFF000000U];
    }
    struct Entry {
        QRgb color;
        std::uint32_t count;
    };
    std::vector<Entry> colors;
    colors.reserve(histogram.size());
    for (const auto& [color, count] : histogram)
        colors.push_back({color, count});
    std::sort(colors.begin(), colors.end(), [](const Entry& a, const Entry& b) { return a.color < b.color; });
    if (colors.size() <= 256) {
        std::vector<QRgb> exact;
        for (const Entry& e : colors)
            exact.push_back(e.color);
        return exact;
    }
    struct Box {
        std::size_t begin;
        std::size_t end;
    };
    auto channel = [](QRgb c, int which) { return which == 0 ? qRed(c) : (which == 1 ? qGreen(c) : qBlue(c)); };
    auto widest = [&](const Box& box, int& which) {
        int best = -1;
        for (int ch = 0; ch < 3; ++ch) {
            int lo = 255;
            int hi = 0;
            for (std::size_t i = box.begin; i < box.end; ++i) {
                lo = std::min(lo, channel(colors[i].color, ch));
                hi = std::max(hi, channel(colors[i].color, ch));
            }
            if (hi - lo > best) {
                best = hi - lo;
                which = ch;
            }
        }
        return best;
    };
    std::vector<Box> boxes{{0, colors.size()}};
    while (boxes.size() < 256) {
        std::size_t pick = boxes.size();
        double score = 0;
        int axis = 0;
        for (std::size_t b = 0; b < boxes.size(); ++b) {
            if (boxes[b].end - boxes[b].begin < 2)
                continue;
            int which = 0;
            const int range = widest(boxes[b], which);
            double weight = 0;
            for (std::size_t i = boxes[b].begin; i < boxes[b].end; ++i)
                weight += colors[i].count;
            const double s = range * std::sqrt(weight);
            if (s > score) {
                score = s;
                pick = b;
                axis = which;
            }
        }
        if (pick == boxes.size())
            break;
        Box box = boxes[pick];
        std::sort(colors.begin() + static_cast<std::ptrdiff_t>(box.begin), colors.begin() + static_cast<std::ptrdiff_t>(box.end),
                  [&](const Entry& a, const Entry& b) { return channel(a.color, axis) < channel(b.color, axis); });
        double total = 0;
        for (std::size_t i = box.begin; i < box.end; ++i)
            total += colors[i].count;
        double running = 0;
        std::size_t cut = box.begin + 1;
        for (std::size_t i = box.begin; i < box.end - 1; ++i) {
            running += colors[i].count;
            cut = i + 1;
            if (running >= total / 2)
                break;
        }
        boxes[pick] = {box.begin, cut};
        boxes.push_back({cut, box.end});
    }
    std::vector<QRgb> palette;
    for (const Box& box : boxes) {
        double r = 0;
        double g = 0;
        double b = 0;
        double n = 0;
        for (std::size_t i = box.begin; i < box.end; ++i) {
            r += qRed(colors[i].color) * static_cast<double>(colors[i].count);
            g += qGreen(colors[i].color) * static_cast<double>(colors[i].count);
            b += qBlue(colors[i].color) * static_cast<double>(colors[i].count);
            n += colors[i].count;
        }
        palette.push_back(qRgb(static_cast<int>(std::lround(r / n)), static_cast<int>(std::lround(g / n)),
                               static_cast<int>(std::lround(b / n))));
    }
    return palette;
}

// An 8-bit BMP with as many colour table entries as the image needs.
void WriteBmp8(const QImage& source, const std::filesystem::path& path)
{
    const QImage image = source.convertToFormat(QImage::Format_RGB32);
    const std::vector<QRgb> palette = Palette(image);
    std::unordered_map<QRgb, std::uint8_t> nearest;
    const int width = image.width();
    const int height = image.height();
    const std::uint32_t stride = (static_cast<std::uint32_t>(width) + 3U) & ~3U;
    const std::uint32_t tableBytes = static_cast<std::uint32_t>(palette.size()) * 4U;
    const std::uint32_t offset = 14 + 40 + tableBytes;
    std::vector<std::uint8_t> out;
    out.reserve(offset + stride * static_cast<std::uint32_t>(height));
    out.push_back('B');
    out.push_back('M');
    PutU32(out, offset + stride * static_cast<std::uint32_t>(height));
    PutU32(out, 0);
    PutU32(out, offset);
    PutU32(out, 40);
    PutU32(out, static_cast<std::uint32_t>(width));
    PutU32(out, static_cast<std::uint32_t>(height));
    PutU16(out, 1);
    PutU16(out, 8);
    PutU32(out, 0);
    PutU32(out, stride * static_cast<std::uint32_t>(height));
    PutU32(out, 2835);
    PutU32(out, 2835);
    PutU32(out, static_cast<std::uint32_t>(palette.size()));
    PutU32(out, 0);
    for (const QRgb c : palette) {
        out.push_back(static_cast<std::uint8_t>(qBlue(c)));
        out.push_back(static_cast<std::uint8_t>(qGreen(c)));
        out.push_back(static_cast<std::uint8_t>(qRed(c)));
        out.push_back(0);
    }
    for (int y = height - 1; y >= 0; --y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < width; ++x) {
            const QRgb c = line[x] | 0xFF000000U;
            auto found = nearest.find(c);
            if (found == nearest.end()) {
                std::size_t best = 0;
                for (std::size_t i = 1; i < palette.size(); ++i) {
                    if (Distance(palette[i], c) < Distance(palette[best], c))
                        best = i;
                }
                found = nearest.emplace(c, static_cast<std::uint8_t>(best)).first;
            }
            out.push_back(found->second);
        }
        for (std::uint32_t pad = static_cast<std::uint32_t>(width); pad < stride; ++pad)
            out.push_back(0);
    }
    WriteFile(path, out);
}

// A 32x32 cursor with alpha, its transparency also in the 1-bit mask for older readers.
void WriteCursor(const QImage& source, QPoint hotSpot, const std::filesystem::path& path)
{
    const QImage image = source.convertToFormat(QImage::Format_ARGB32);
    const int size = image.width();
    const std::uint32_t maskStride = ((static_cast<std::uint32_t>(size) + 31U) / 32U) * 4U;
    const std::uint32_t imageBytes = 40 + static_cast<std::uint32_t>(size * size * 4) + maskStride * static_cast<std::uint32_t>(size);
    std::vector<std::uint8_t> out;
    PutU16(out, 0);
    PutU16(out, 2);
    PutU16(out, 1);
    out.push_back(static_cast<std::uint8_t>(size));
    out.push_back(static_cast<std::uint8_t>(size));
    out.push_back(0);
    out.push_back(0);
    PutU16(out, static_cast<unsigned>(hotSpot.x()));
    PutU16(out, static_cast<unsigned>(hotSpot.y()));
    PutU32(out, imageBytes);
    PutU32(out, 22);
    PutU32(out, 40);
    PutU32(out, static_cast<std::uint32_t>(size));
    PutU32(out, static_cast<std::uint32_t>(size * 2));
    PutU16(out, 1);
    PutU16(out, 32);
    for (int i = 0; i < 6; ++i)
        PutU32(out, 0);
    for (int y = size - 1; y >= 0; --y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < size; ++x)
            PutU32(out, line[x]);
    }
    for (int y = size - 1; y >= 0; --y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        std::vector<std::uint8_t> row(maskStride, 0);
        for (int x = 0; x < size; ++x) {
            if (qAlpha(line[x]) < 128)
                row[static_cast<std::size_t>(x / 8)] |= static_cast<std::uint8_t>(0x80U >> (x % 8));
        }
        out.insert(out.end(), row.begin(), row.end());
    }
    WriteFile(path, out);
}

// ---------------------------------------------------------------- look

struct Theme {
    std::string name;
    QColor window0, window1, header0, header1, edge;
    QColor card, cardEdge, label, text, muted;
    QColor accent0, accent1, danger0, danger1;
    QColor pill, pillOver, pillDown, pillEdge, pillDisabled;
    QColor onText, offText, offOverText;
    QColor groove, grooveFill, tick;
    QColor knob0, knob1, knobEdge;
    QColor oscBack, oscTrace, oscEdge;
    QColor listBack, listText, listSel, listSelText, listCurr, listCurrText;
    QColor lampOff, lampOn;
    QColor titleButton, titleButtonOver, titleButtonDown, exitOver;
};

Theme DarkTheme()
{
    Theme t;
    t.name = "Default";
    t.window0 = QColor(0x1a, 0x1d, 0x27);
    t.window1 = QColor(0x12, 0x14, 0x1b);
    t.header0 = QColor(0x23, 0x27, 0x35);
    t.header1 = QColor(0x1a, 0x1d, 0x27);
    t.edge = QColor(0x3a, 0x40, 0x55);
    t.card = QColor(0x22, 0x26, 0x33);
    t.cardEdge = QColor(0x2f, 0x34, 0x46);
    t.label = QColor(0x8b, 0x93, 0xad);
    t.text = QColor(0xe8, 0xea, 0xf2);
    t.muted = QColor(0x6b, 0x72, 0x8a);
    t.accent0 = QColor(0x8b, 0x5c, 0xf6);
    t.accent1 = QColor(0x22, 0xc3, 0xee);
    t.danger0 = QColor(0xef, 0x44, 0x5a);
    t.danger1 = QColor(0xc0, 0x26, 0x3d);
    t.pill = QColor(0x2c, 0x31, 0x42);
    t.pillOver = QColor(0x38, 0x3e, 0x54);
    t.pillDown = QColor(0x1f, 0x23, 0x2f);
    t.pillEdge = QColor(0x41, 0x48, 0x60);
    t.pillDisabled = QColor(0x24, 0x27, 0x31);
    t.onText = QColor(0xff, 0xff, 0xff);
    t.offText = QColor(0xb4, 0xba, 0xcc);
    t.offOverText = QColor(0xff, 0xff, 0xff);
    t.groove = QColor(0x0e, 0x10, 0x16);
    t.grooveFill = QColor(0x2c, 0x31, 0x42);
    t.tick = QColor(0x3a, 0x40, 0x55);
    t.knob0 = QColor(0xf4, 0xf5, 0xfa);
    t.knob1 = QColor(0xb9, 0xbe, 0xcf);
    t.knobEdge = QColor(0x0b, 0x0c, 0x11);
    t.oscBack = QColor(0x0b, 0x12, 0x17);
    t.oscTrace = QColor(0x2d, 0xe0, 0xc0);
    t.oscEdge = QColor(0x2f, 0x34, 0x46);
    t.listBack = QColor(0x1c, 0x1f, 0x2a);
    t.listText = QColor(0xd6, 0xd9, 0xe4);
    t.listSel = QColor(0x5b, 0x3d, 0xb8);
    t.listSelText = QColor(0xff, 0xff, 0xff);
    t.listCurr = QColor(0x31, 0x37, 0x4b);
    t.listCurrText = QColor(0xff, 0xff, 0xff);
    t.lampOff = QColor(0x3b, 0x2a, 0x2e);
    t.lampOn = QColor(0x3d, 0xf5, 0x8a);
    t.titleButton = QColor(0x2a, 0x2e, 0x3d);
    t.titleButtonOver = QColor(0x3a, 0x40, 0x55);
    t.titleButtonDown = QColor(0x1c, 0x1f, 0x2a);
    t.exitOver = QColor(0xe5, 0x3e, 0x55);
    return t;
}

Theme LightTheme()
{
    Theme t = DarkTheme();
    t.name = "Light";
    t.window0 = QColor(0xf6, 0xf7, 0xfb);
    t.window1 = QColor(0xe6, 0xe9, 0xf1);
    t.header0 = QColor(0xff, 0xff, 0xff);
    t.header1 = QColor(0xee, 0xf0, 0xf6);
    t.edge = QColor(0xbf, 0xc5, 0xd3);
    t.card = QColor(0xff, 0xff, 0xff);
    t.cardEdge = QColor(0xd8, 0xdc, 0xe6);
    t.label = QColor(0x6a, 0x72, 0x8a);
    t.text = QColor(0x1d, 0x22, 0x30);
    t.muted = QColor(0x8a, 0x90, 0xa3);
    t.accent0 = QColor(0x5b, 0x4b, 0xdb);
    t.accent1 = QColor(0x0e, 0xa5, 0xc6);
    t.pill = QColor(0xec, 0xee, 0xf4);
    t.pillOver = QColor(0xe0, 0xe4, 0xf0);
    t.pillDown = QColor(0xd3, 0xd8, 0xe5);
    t.pillEdge = QColor(0xc9, 0xcf, 0xdc);
    t.pillDisabled = QColor(0xf1, 0xf2, 0xf5);
    t.offText = QColor(0x44, 0x4b, 0x5e);
    t.offOverText = QColor(0x1d, 0x22, 0x30);
    t.groove = QColor(0xd3, 0xd8, 0xe3);
    t.grooveFill = QColor(0xe4, 0xe7, 0xef);
    t.tick = QColor(0xc4, 0xc9, 0xd6);
    t.knob0 = QColor(0xff, 0xff, 0xff);
    t.knob1 = QColor(0xe1, 0xe4, 0xec);
    t.knobEdge = QColor(0x8a, 0x90, 0xa3);
    t.oscBack = QColor(0x17, 0x1b, 0x26);
    t.oscTrace = QColor(0x38, 0xe0, 0xb0);
    t.oscEdge = QColor(0xc9, 0xcf, 0xdc);
    t.listBack = QColor(0xf4, 0xf5, 0xf9);
    t.listText = QColor(0x2a, 0x30, 0x40);
    t.listSel = QColor(0x5b, 0x4b, 0xdb);
    t.listSelText = QColor(0xff, 0xff, 0xff);
    t.listCurr = QColor(0xdd, 0xe2, 0xf0);
    t.listCurrText = QColor(0x1d, 0x22, 0x30);
    t.lampOff = QColor(0xc9, 0xb9, 0xbd);
    t.lampOn = QColor(0x1f, 0xc8, 0x6a);
    t.titleButton = QColor(0xe7, 0xea, 0xf2);
    t.titleButtonOver = QColor(0xd7, 0xdc, 0xe8);
    t.titleButtonDown = QColor(0xc6, 0xcc, 0xdb);
    return t;
}

// ---------------------------------------------------------------- layout

constexpr int kWidth = 600;
constexpr int kHeight = 430;
constexpr int kCorner = 18;

constexpr int kSlotX = 18;
constexpr int kSlotW = 284;
constexpr int kSlotH = 46;
constexpr std::array<int, 3> kSlotY = {88, 142, 196};

constexpr int kStripX0 = 322;
constexpr int kStripStep = 90;
constexpr int kStripW = 82;
constexpr int kStripY = 88;
constexpr int kStripH = 154;
constexpr QSize kVSlider{24, 96};
constexpr QSize kVThumb{24, 14};

const QRect kOsciPanel(18, 274, 284, 88);
const QRect kOsci(26, 282, 268, 72);
const QRect kListPanel(322, 274, 262, 88);
const QRect kList(326, 278, 254, 80);

constexpr int kBottomY = 378;
const QRect kMonitor(18, kBottomY, 98, 34);
const QRect kMonitorLvl(126, kBottomY + 5, 140, 24);
constexpr QSize kHThumb{14, 22};
const QRect kLamp(282, kBottomY + 10, 14, 14);
const QRect kOptions(322, kBottomY, 118, 34);
const QRect kStopAll(466, kBottomY, 118, 34);
constexpr int kTitleButton = 24;
constexpr int kTitleY = 16;

QRect SlotRadio(int i) { return {kSlotX + 8, kSlotY[static_cast<std::size_t>(i)] + 7, 52, 32}; }
QRect SlotText(int i) { return {kSlotX + 72, kSlotY[static_cast<std::size_t>(i)] + 14, 162, 20}; }
QRect SlotConfig(int i) { return {kSlotX + kSlotW - 40, kSlotY[static_cast<std::size_t>(i)] + 9, 28, 28}; }
int StripX(int i) { return kStripX0 + i * kStripStep; }
QRect StripSlider(int i) { return {StripX(i) + 8, kStripY + 10, kVSlider.width(), kVSlider.height()}; }
QRect StripConfig(int i) { return {StripX(i) + kStripW - 30, kStripY + 10, 24, 24}; }
QRect StripRadio(int i) { return {StripX(i) + 40, kStripY + 82, 36, 24}; }
QRect StripText(int i) { return {StripX(i) + 6, kStripY + 116, kStripW - 12, 32}; }
QRect TitleButton(int fromRight) { return {kWidth - 20 - kTitleButton - fromRight * (kTitleButton + 8), kTitleY, kTitleButton, kTitleButton}; }

QFont Font(int pixels, bool bold, double spacing = 0)
{
    QFont font("DejaVu Sans");
    font.setPixelSize(pixels);
    font.setBold(bold);
    if (spacing != 0)
        font.setLetterSpacing(QFont::AbsoluteSpacing, spacing);
    font.setHintingPreference(QFont::PreferFullHinting);
    return font;
}

QPainterPath Rounded(const QRectF& rect, double radius)
{
    QPainterPath path;
    path.addRoundedRect(rect, radius, radius);
    return path;
}

void Card(QPainter& p, const QRectF& rect, const Theme& t, double radius = 10)
{
    p.setPen(QPen(t.cardEdge, 1));
    p.setBrush(t.card);
    p.drawPath(Rounded(rect.adjusted(0.5, 0.5, -0.5, -0.5), radius));
}

void Label(QPainter& p, int x, int y, const QString& text, const Theme& t)
{
    p.setFont(Font(10, true, 1.4));
    p.setPen(t.label);
    p.drawText(QPoint(x, y), text);
}

void Gear(QPainter& p, QPointF centre, double radius, const QColor& color)
{
    QPainterPath gear;
    const int teeth = 8;
    for (int i = 0; i < teeth * 2; ++i) {
        const double angle = std::numbers::pi * i / teeth;
        const double r = (i % 2 == 0) ? radius : radius * 0.74;
        const double a0 = angle - std::numbers::pi / teeth * 0.5;
        const double a1 = angle + std::numbers::pi / teeth * 0.5;
        const QPointF p0 = centre + QPointF(std::cos(a0) * r, std::sin(a0) * r);
        const QPointF p1 = centre + QPointF(std::cos(a1) * r, std::sin(a1) * r);
        if (i == 0)
            gear.moveTo(p0);
        else
            gear.lineTo(p0);
        gear.lineTo(p1);
    }
    gear.closeSubpath();
    QPainterPath hole;
    hole.addEllipse(centre, radius * 0.34, radius * 0.34);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawPath(gear.subtracted(hole));
}

void Headphones(QPainter& p, QPointF centre, const QColor& color)
{
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(color, 2.0, Qt::SolidLine, Qt::RoundCap));
    p.drawArc(QRectF(centre.x() - 8, centre.y() - 8, 16, 16), 0, 180 * 16);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawRoundedRect(QRectF(centre.x() - 9, centre.y() - 1, 5, 8), 1.5, 1.5);
    p.drawRoundedRect(QRectF(centre.x() + 4, centre.y() - 1, 5, 8), 1.5, 1.5);
}

void Waveform(QPainter& p, QPointF origin, double height, const QColor& a, const QColor& b)
{
    const std::array<double, 7> bars = {0.35, 0.7, 1.0, 0.55, 0.85, 0.45, 0.25};
    QLinearGradient gradient(origin, origin + QPointF(bars.size() * 5.0, 0));
    gradient.setColorAt(0, a);
    gradient.setColorAt(1, b);
    p.setPen(Qt::NoPen);
    p.setBrush(gradient);
    for (std::size_t i = 0; i < bars.size(); ++i) {
        const double h = height * bars[i];
        p.drawRoundedRect(QRectF(origin.x() + static_cast<double>(i) * 5.0, origin.y() + (height - h) / 2, 3, h), 1.5, 1.5);
    }
}

QPainterPath WindowShape()
{
    return Rounded(QRectF(0, 0, kWidth, kHeight), kCorner);
}

QRegion PathRegion(const QPainterPath& path)
{
    // Pixel centres inside the shape, merged into rows of spans.
    QImage mask(path.boundingRect().toAlignedRect().size() + QSize(2, 2), QImage::Format_ARGB32);
    const QPoint offset = path.boundingRect().toAlignedRect().topLeft();
    mask.fill(0);
    QPainter p(&mask);
    p.setRenderHint(QPainter::Antialiasing);
    p.translate(-offset);
    p.fillPath(path, Qt::black);
    p.end();
    QRegion region;
    for (int y = 0; y < mask.height(); ++y) {
        int start = -1;
        for (int x = 0; x <= mask.width(); ++x) {
            const bool inside = x < mask.width() && qAlpha(mask.pixel(x, y)) >= 128;
            if (inside && start < 0)
                start = x;
            if (!inside && start >= 0) {
                region += QRect(start + offset.x(), y + offset.y(), x - start, 1);
                start = -1;
            }
        }
    }
    return region;
}

QImage Background(const Theme& t)
{
    QImage image(kWidth, kHeight, QImage::Format_RGB32);
    image.fill(t.window1);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);

    QLinearGradient body(0, 0, 0, kHeight);
    body.setColorAt(0, t.window0);
    body.setColorAt(1, t.window1);
    p.fillPath(WindowShape(), body);

    QPainterPath header;
    header.addRect(0, 0, kWidth, 58);
    QLinearGradient head(0, 0, 0, 58);
    head.setColorAt(0, t.header0);
    head.setColorAt(1, t.header1);
    p.fillPath(header.intersected(WindowShape()), head);
    p.setPen(QPen(t.cardEdge, 1));
    p.drawLine(QPointF(18, 58.5), QPointF(kWidth - 18, 58.5));

    // Brand: a small waveform mark and the name.
    QRectF badge(20, 14, 30, 30);
    QLinearGradient badgeFill(badge.topLeft(), badge.bottomRight());
    badgeFill.setColorAt(0, t.accent0);
    badgeFill.setColorAt(1, t.accent1);
    p.setPen(Qt::NoPen);
    p.setBrush(badgeFill);
    p.drawRoundedRect(badge, 9, 9);
    Waveform(p, QPointF(27.5, 19), 20, QColor(255, 255, 255), QColor(255, 255, 255, 220));
    p.setFont(Font(20, true, 0.3));
    p.setPen(t.text);
    p.drawText(QPoint(60, 34), "Larimo");
    p.setFont(Font(11, false, 0.4));
    p.setPen(t.muted);
    p.drawText(QPoint(61, 48), "real-time voice changer");

    // Voice effect slots.
    Label(p, 22, 78, "VOICE EFFECT", t);
    for (int i = 0; i < 3; ++i)
        Card(p, QRectF(kSlotX, kSlotY[static_cast<std::size_t>(i)], kSlotW, kSlotH), t);

    // Background sound strips with their fader grooves.
    Label(p, 326, 78, "BACKGROUND SOUND", t);
    for (int i = 0; i < 3; ++i) {
        Card(p, QRectF(StripX(i), kStripY, kStripW, kStripH), t);
        const QRect slider = StripSlider(i);
        const int cx = slider.center().x() + 1;
        const int top = slider.top() + kVThumb.height() / 2;
        const int bottom = slider.bottom() + 1 - kVThumb.height() / 2;
        p.setPen(Qt::NoPen);
        p.setBrush(t.groove);
        p.drawRoundedRect(QRectF(cx - 2.5, top - 2, 5, bottom - top + 4), 2.5, 2.5);
        p.setPen(QPen(t.tick, 1));
        for (int k = 0; k <= 10; ++k) {
            const double y = top + (bottom - top) * k / 10.0 + 0.5;
            const double len = k % 5 == 0 ? 5 : 3;
            p.drawLine(QPointF(slider.left() - 1 - len, y), QPointF(slider.left() - 1, y));
        }
        p.setFont(Font(9, true, 0.5));
        p.setPen(t.muted);
        p.drawText(QRect(StripX(i) + 38, kStripY + 38, 40, 14), Qt::AlignLeft, "VOL");
        p.setFont(Font(18, true));
        p.setPen(t.cardEdge.lighter(140));
        p.drawText(QRect(StripX(i) + 38, kStripY + 50, 40, 26), Qt::AlignLeft, QString::number(i + 1));
    }

    // Oscilloscope bezel.
    Label(p, 22, 268, "OUTPUT", t);
    Card(p, QRectF(kOsciPanel.adjusted(0, 0, 0, 0)), t, 12);
    p.setPen(QPen(t.oscEdge, 1));
    p.setBrush(t.oscBack);
    p.drawRoundedRect(QRectF(kOsci).adjusted(-1.5, -1.5, 1.5, 1.5), 8, 8);

    // Fun sound list panel, the same colour as the list so the two read as one.
    Label(p, 326, 268, "FUN SOUNDS", t);
    p.setPen(QPen(t.cardEdge, 1));
    p.setBrush(t.listBack);
    p.drawRoundedRect(QRectF(kListPanel).adjusted(0.5, 0.5, -0.5, -0.5), 10, 10);

    // Listen level groove and the device lamp's socket.
    const int grooveY = kMonitorLvl.center().y() + 1;
    const int left = kMonitorLvl.left() + kHThumb.width() / 2;
    const int right = kMonitorLvl.right() + 1 - kHThumb.width() / 2;
    p.setPen(Qt::NoPen);
    p.setBrush(t.groove);
    p.drawRoundedRect(QRectF(left - 2, grooveY - 2.5, right - left + 4, 5), 2.5, 2.5);
    p.setPen(QPen(t.tick, 1));
    for (int k = 0; k <= 10; ++k) {
        const double x = left + (right - left) * k / 10.0 + 0.5;
        p.drawLine(QPointF(x, kMonitorLvl.bottom() + 2), QPointF(x, kMonitorLvl.bottom() + (k % 5 == 0 ? 6 : 4)));
    }
    p.setBrush(t.groove);
    p.setPen(Qt::NoPen);
    p.drawEllipse(QRectF(kLamp).adjusted(-3, -3, 3, 3));
    p.setFont(Font(8, true, 0.6));
    p.setPen(t.muted);
    p.drawText(QRect(kLamp.left() - 12, kLamp.bottom() + 6, 38, 12), Qt::AlignHCenter, "DEVICE");

    // A hairline just inside the window's edge softens the region's stair steps.
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(t.edge, 1.2));
    p.drawPath(Rounded(QRectF(0.8, 0.8, kWidth - 1.6, kHeight - 1.6), kCorner - 0.8));
    return image;
}

enum class State { Up, Down, Over, Disabled };

struct States {
    QImage off[4];
    QImage on[4];
};

QImage Crop(const QImage& background, const QRect& rect)
{
    return background.copy(rect);
}

QPainterPath PillShape(const QSize& size, double radius)
{
    return Rounded(QRectF(0.5, 0.5, size.width() - 1.0, size.height() - 1.0), radius);
}

// A rounded button painted over the window background it sits on, so its edges blend.
QImage Pill(const QImage& background, const QRect& rect, double radius, const QColor& fill, const QColor& edge,
            const QColor* gradientTo = nullptr, bool glow = false)
{
    QImage image = Crop(background, rect);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    const QPainterPath shape = PillShape(rect.size(), radius);
    if (gradientTo != nullptr) {
        QLinearGradient g(0, 0, rect.width(), rect.height());
        g.setColorAt(0, fill);
        g.setColorAt(1, *gradientTo);
        p.fillPath(shape, g);
    } else {
        p.fillPath(shape, fill);
    }
    if (glow) {
        QLinearGradient shine(0, 0, 0, rect.height());
        shine.setColorAt(0, QColor(255, 255, 255, 60));
        shine.setColorAt(0.5, QColor(255, 255, 255, 0));
        p.fillPath(shape, shine);
    }
    p.setPen(QPen(edge, 1));
    p.setBrush(Qt::NoBrush);
    p.drawPath(shape);
    return image;
}

States SlotStates(const QImage& bg, const QRect& rect, const Theme& t, double radius)
{
    States s;
    const QColor a0d = t.accent0.darker(125);
    const QColor a1d = t.accent1.darker(125);
    const QColor a0l = t.accent0.lighter(115);
    const QColor a1l = t.accent1.lighter(115);
    QColor grey0 = t.pillEdge;
    QColor grey1 = t.pillOver;
    s.off[0] = Pill(bg, rect, radius, t.pill, t.pillEdge);
    s.off[1] = Pill(bg, rect, radius, t.pillDown, t.pillEdge);
    s.off[2] = Pill(bg, rect, radius, t.pillOver, t.accent0);
    s.off[3] = Pill(bg, rect, radius, t.pillDisabled, t.cardEdge);
    s.on[0] = Pill(bg, rect, radius, t.accent0, t.accent0.lighter(130), &t.accent1, true);
    s.on[1] = Pill(bg, rect, radius, a0d, t.accent0, &a1d, false);
    s.on[2] = Pill(bg, rect, radius, a0l, QColor(255, 255, 255, 160), &a1l, true);
    s.on[3] = Pill(bg, rect, radius, grey0, t.cardEdge, &grey1, false);
    return s;
}

States PushStates(const QImage& bg, const QRect& rect, const Theme& t, double radius, const QColor& up,
                  const QColor& over, const QColor& down, const QColor& edge, bool gradient)
{
    States s;
    const QColor up2 = up.darker(118);
    const QColor over2 = over.darker(112);
    const QColor down2 = down.darker(115);
    s.off[0] = Pill(bg, rect, radius, up, edge, gradient ? &up2 : nullptr, gradient);
    s.off[1] = Pill(bg, rect, radius, down, edge, gradient ? &down2 : nullptr, false);
    s.off[2] = Pill(bg, rect, radius, over, edge.lighter(125), gradient ? &over2 : nullptr, gradient);
    s.off[3] = Pill(bg, rect, radius, t.pillDisabled, t.cardEdge);
    return s;
}

void Decorate(QImage& image, const std::function<void(QPainter&)>& draw)
{
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    draw(p);
}

// ---------------------------------------------------------------- the skin file

class SkinWriter {
public:
    SkinWriter(std::filesystem::path root, const Theme& theme) : m_root(std::move(root)), m_theme(theme)
    {
        m_folder = m_root / theme.name;
        std::filesystem::create_directories(m_folder);
        for (const auto& entry : std::filesystem::directory_iterator(m_folder))
            std::filesystem::remove(entry.path());
    }

    // Writes a bitmap once per distinct picture and returns the value for the skin file.
    std::string Bitmap(const std::string& name, const QImage& image)
    {
        for (const auto& [written, file] : m_written) {
            if (written == image)
                return file;
        }
        const std::string file = m_theme.name + "\\" + name + ".bmp";
        WriteBmp8(image, m_folder / (name + ".bmp"));
        m_written.emplace_back(image, file);
        return file;
    }

    std::string Region(const std::string& name, const QRegion& region)
    {
        WriteFile(m_folder / (name + ".rgn"), CDynRgn::Serialize(region));
        return m_theme.name + "\\" + name + ".rgn";
    }

    std::string Cursor(const std::string& name, const QImage& image, QPoint hot)
    {
        WriteCursor(image, hot, m_folder / (name + ".cur"));
        return m_theme.name + "\\" + name + ".cur";
    }

    void Object(const std::string& section) { m_text += "\n" + section + "\n"; }
    void Key(const std::string& key, const std::string& value) { m_text += key + "=" + value + "\n"; }
    static std::string Pair(int a, int b) { return std::to_string(a) + "," + std::to_string(b); }
    static std::string Color(const QColor& c)
    {
        return std::to_string(c.red()) + "," + std::to_string(c.green()) + "," + std::to_string(c.blue());
    }

    void ButtonStates(const std::string& prefix, const States& s, bool withOn)
    {
        static const char* kOff[] = {"bitmap_off_up", "bitmap_off_do", "bitmap_off_mo", "bitmap_off_da"};
        static const char* kOn[] = {"bitmap_on_up", "bitmap_on_do", "bitmap_on_mo", "bitmap_on_da"};
        static const char* kSuffix[] = {"up", "down", "over", "disabled"};
        for (int i = 0; i < 4; ++i) {
            if (!s.off[i].isNull())
                Key(kOff[i], Bitmap(prefix + "_off_" + kSuffix[i], s.off[i]));
        }
        if (!withOn)
            return;
        for (int i = 0; i < 4; ++i) {
            if (!s.on[i].isNull())
                Key(kOn[i], Bitmap(prefix + "_on_" + kSuffix[i], s.on[i]));
        }
    }

    void Save(const std::string& preamble)
    {
        const std::filesystem::path file = m_root / (m_theme.name + ".sdf");
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << preamble << m_text;
        if (!out) {
            std::fprintf(stderr, "skinpainter: cannot write %s\n", file.c_str());
            std::exit(1);
        }
    }

private:
    std::filesystem::path m_root;
    std::filesystem::path m_folder;
    const Theme& m_theme;
    std::string m_text;
    std::vector<std::pair<QImage, std::string>> m_written;
};

QImage PointerImage(const Theme& t)
{
    QImage image(32, 32, QImage::Format_ARGB32);
    image.fill(0);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath arrow;
    arrow.moveTo(1, 1);
    arrow.lineTo(1, 19);
    arrow.lineTo(5.5, 14.8);
    arrow.lineTo(8.6, 21.6);
    arrow.lineTo(11.6, 20.3);
    arrow.lineTo(8.6, 13.6);
    arrow.lineTo(14.6, 13.4);
    arrow.closeSubpath();
    QLinearGradient fill(0, 0, 14, 20);
    fill.setColorAt(0, t.accent0.lighter(120));
    fill.setColorAt(1, t.accent1);
    p.setPen(QPen(QColor(255, 255, 255), 1.2));
    p.setBrush(fill);
    p.drawPath(arrow);
    return image;
}

void PaintSkin(const std::filesystem::path& root, const Theme& t)
{
    SkinWriter w(root, t);
    const QImage bg = Background(t);
    const std::string captionFont = "DejaVu Sans,-13,bold";
    const std::string smallFont = "DejaVu Sans,-11,bold";
    const std::string pointer = w.Cursor("pointer", PointerImage(t), QPoint(1, 1));

    w.Object("[Larimo]");
    w.Key("size", SkinWriter::Pair(kWidth, kHeight));
    w.Key("bitmap", w.Bitmap("background", bg));
    w.Key("region", w.Region("window", PathRegion(WindowShape())));

    auto captionColors = [&](const QColor& up, const QColor& over, const QColor& down, const QColor& downOver) {
        w.Key("font_color_up", SkinWriter::Color(up));
        w.Key("font_color_mo", SkinWriter::Color(over));
        w.Key("font_color_do", SkinWriter::Color(down));
        w.Key("font_color_do_mo", SkinWriter::Color(downOver));
    };

    // Voice effect slots: a numbered pill, the effect's name, a configure gear.
    for (int i = 0; i < 3; ++i) {
        const std::string n = std::to_string(i + 1);
        const QRect radio = SlotRadio(i);
        w.Object("[ERadio" + n + "]");
        w.Key("position", SkinWriter::Pair(radio.x(), radio.y()));
        w.Key("size", SkinWriter::Pair(radio.width(), radio.height()));
        w.ButtonStates("effect" + n, SlotStates(bg, radio, t, 16), true);
        w.Key("region", w.Region("slot_pill", PathRegion(PillShape(radio.size(), 16))));
        w.Key("caption", n);
        w.Key("font", "DejaVu Sans,-15,bold");
        captionColors(t.offText, t.offOverText, t.onText, t.onText);
        w.Key("mouseover", "1");
        w.Key("cursor", pointer);

        const QRect text = SlotText(i);
        w.Object("[EText" + n + "]");
        w.Key("position", SkinWriter::Pair(text.x(), text.y()));
        w.Key("size", SkinWriter::Pair(text.width(), text.height()));
        w.Key("font", "DejaVu Sans,-14,bold");
        w.Key("font_color", SkinWriter::Color(t.text));

        const QRect config = SlotConfig(i);
        States gear = PushStates(bg, config, t, 14, t.card, t.pillOver, t.pillDown, t.card, false);
        const QColor gearColors[4] = {t.label, t.text, t.accent1, t.cardEdge};
        for (int s = 0; s < 4; ++s)
            Decorate(gear.off[s], [&](QPainter& p) { Gear(p, QPointF(14, 14), 8.5, gearColors[s]); });
        w.Object("[EConfig" + n + "]");
        w.Key("position", SkinWriter::Pair(config.x(), config.y()));
        w.Key("size", SkinWriter::Pair(config.width(), config.height()));
        w.ButtonStates("effect" + n + "_config", gear, false);
        w.Key("region", w.Region("gear28", PathRegion(PillShape(config.size(), 14))));
        w.Key("mouseover", "1");
    }

    // Background strips: a fader, a numbered switch, the sound's name, a gear.
    QImage vthumb(kVThumb, QImage::Format_RGB32);
    {
        vthumb.fill(QColor(255, 0, 255));
        QPainter p(&vthumb);
        p.setPen(QPen(t.knobEdge, 1));
        QLinearGradient g(0, 0, 0, kVThumb.height());
        g.setColorAt(0, t.knob0);
        g.setColorAt(1, t.knob1);
        p.setBrush(g);
        p.drawRoundedRect(QRect(0, 0, kVThumb.width() - 1, kVThumb.height() - 1), 3, 3);
        p.setPen(QPen(t.accent0, 2));
        p.drawLine(4, kVThumb.height() / 2, kVThumb.width() - 5, kVThumb.height() / 2);
    }
    for (int i = 0; i < 3; ++i) {
        const std::string n = std::to_string(i + 1);
        const QRect slider = StripSlider(i);
        w.Object("[SSlider" + n + "]");
        w.Key("position", SkinWriter::Pair(slider.x(), slider.y()) + ",0,0");
        w.Key("size", SkinWriter::Pair(slider.width(), slider.height()));
        w.Key("bitmap_thumb", w.Bitmap("fader_thumb", vthumb));
        w.Key("bitmap_thumb_transparent_color", "255,0,255");
        w.Key("orientation", "vertical");

        const QRect radio = StripRadio(i);
        w.Object("[SRadio" + n + "]");
        w.Key("position", SkinWriter::Pair(radio.x(), radio.y()));
        w.Key("size", SkinWriter::Pair(radio.width(), radio.height()));
        States play = SlotStates(bg, radio, t, 12);
        const QColor playColors[4] = {t.offText, t.offText, t.offOverText, t.cardEdge};
        for (int s = 0; s < 4; ++s) {
            Decorate(play.off[s], [&](QPainter& p) {
                p.setPen(Qt::NoPen);
                p.setBrush(playColors[s]);
                p.drawPolygon(QPolygonF({QPointF(14, 7), QPointF(14, 17), QPointF(23, 12)}));
            });
            Decorate(play.on[s], [&](QPainter& p) {
                p.setPen(Qt::NoPen);
                p.setBrush(s == 3 ? t.pillDisabled : t.onText);
                p.drawRoundedRect(QRectF(12.5, 7.5, 3, 9), 1, 1);
                p.drawRoundedRect(QRectF(19.5, 7.5, 3, 9), 1, 1);
            });
        }
        w.ButtonStates("sound" + n, play, true);
        w.Key("region", w.Region("sound_pill", PathRegion(PillShape(radio.size(), 12))));
        w.Key("mouseover", "1");

        const QRect text = StripText(i);
        w.Object("[SText" + n + "]");
        w.Key("position", SkinWriter::Pair(text.x(), text.y()));
        w.Key("size", SkinWriter::Pair(text.width(), text.height()));
        w.Key("font", "DejaVu Sans,-11,bold");
        w.Key("font_color", SkinWriter::Color(t.text));

        const QRect config = StripConfig(i);
        States gear = PushStates(bg, config, t, 12, t.card, t.pillOver, t.pillDown, t.card, false);
        const QColor gearColors[4] = {t.label, t.text, t.accent1, t.cardEdge};
        for (int s = 0; s < 4; ++s)
            Decorate(gear.off[s], [&](QPainter& p) { Gear(p, QPointF(12, 12), 7.5, gearColors[s]); });
        w.Object("[SConfig" + n + "]");
        w.Key("position", SkinWriter::Pair(config.x(), config.y()));
        w.Key("size", SkinWriter::Pair(config.width(), config.height()));
        w.ButtonStates("sound" + n + "_config", gear, false);
        w.Key("region", w.Region("gear24", PathRegion(PillShape(config.size(), 12))));
        w.Key("mouseover", "1");
    }

    // Fun sound list and the configure button of its rows.
    w.Object("[EmList]");
    w.Key("position", SkinWriter::Pair(kList.x(), kList.y()) + ",0,0");
    w.Key("size", SkinWriter::Pair(kList.width(), kList.height()));
    w.Key("font", "DejaVu Sans,-12");
    w.Key("color_foreground", SkinWriter::Color(t.listText));
    w.Key("color_background", SkinWriter::Color(t.listBack));
    w.Key("color_sel", SkinWriter::Color(t.listSelText));
    w.Key("color_selbg", SkinWriter::Color(t.listSel));
    w.Key("color_curr", SkinWriter::Color(t.listCurrText));
    w.Key("color_currbg", SkinWriter::Color(t.listCurr));
    {
        const QSize size(26, 20);
        States gear;
        const QColor fills[4] = {t.listCurr, t.pillDown, t.pillOver, t.listCurr};
        const QColor colors[4] = {t.listCurrText, t.accent1, t.accent1.lighter(120), t.muted};
        for (int s = 0; s < 4; ++s) {
            gear.off[s] = QImage(size, QImage::Format_RGB32);
            gear.off[s].fill(fills[s]);
            Decorate(gear.off[s], [&](QPainter& p) { Gear(p, QPointF(13, 10), 6.5, colors[s]); });
        }
        w.Object("[EmoticConfig]");
        w.Key("size", SkinWriter::Pair(size.width(), size.height()));
        w.ButtonStates("funsound_config", gear, false);
        w.Key("mouseover", "1");
    }

    // Stop everything: the one red button.
    w.Object("[StopAll]");
    w.Key("position", SkinWriter::Pair(kStopAll.x(), kStopAll.y()));
    w.Key("size", SkinWriter::Pair(kStopAll.width(), kStopAll.height()));
    {
        States stop = PushStates(bg, kStopAll, t, 17, t.danger0, t.danger0.lighter(112), t.danger1, t.danger1, true);
        for (int s = 0; s < 4; ++s) {
            Decorate(stop.off[s], [&](QPainter& p) {
                p.setPen(Qt::NoPen);
                p.setBrush(s == 3 ? t.cardEdge : QColor(255, 255, 255));
                p.drawRoundedRect(QRectF(16, 12, 10, 10), 2, 2);
            });
        }
        w.ButtonStates("stopall", stop, false);
    }
    w.Key("region", w.Region("wide_pill", PathRegion(PillShape(kStopAll.size(), 17))));
    w.Key("caption", "STOP ALL");
    w.Key("font", smallFont);
    w.Key("align", "36,0");
    captionColors(QColor(255, 255, 255), QColor(255, 255, 255), QColor(255, 230, 232), QColor(255, 255, 255));
    w.Key("mouseover", "1");

    // Listen switch with its level and the device lamp.
    w.Object("[Monitor]");
    w.Key("position", SkinWriter::Pair(kMonitor.x(), kMonitor.y()));
    w.Key("size", SkinWriter::Pair(kMonitor.width(), kMonitor.height()));
    {
        States listen = SlotStates(bg, kMonitor, t, 17);
        const QColor off[4] = {t.offText, t.offText, t.offOverText, t.cardEdge};
        for (int s = 0; s < 4; ++s) {
            Decorate(listen.off[s], [&](QPainter& p) { Headphones(p, QPointF(22, 16), off[s]); });
            Decorate(listen.on[s], [&](QPainter& p) { Headphones(p, QPointF(22, 16), s == 3 ? t.pillDisabled : t.onText); });
        }
        w.ButtonStates("listen", listen, true);
    }
    w.Key("region", w.Region("listen_pill", PathRegion(PillShape(kMonitor.size(), 17))));
    w.Key("caption", "Listen");
    w.Key("font", captionFont);
    w.Key("align", "38,0");
    captionColors(t.offText, t.offOverText, t.onText, t.onText);
    w.Key("mouseover", "1");

    QImage hthumb(kHThumb, QImage::Format_RGB32);
    {
        hthumb.fill(QColor(255, 0, 255));
        QPainter p(&hthumb);
        p.setPen(QPen(t.knobEdge, 1));
        QLinearGradient g(0, 0, kHThumb.width(), 0);
        g.setColorAt(0, t.knob0);
        g.setColorAt(1, t.knob1);
        p.setBrush(g);
        p.drawRoundedRect(QRect(0, 0, kHThumb.width() - 1, kHThumb.height() - 1), 3, 3);
        p.setPen(QPen(t.accent1, 2));
        p.drawLine(kHThumb.width() / 2, 5, kHThumb.width() / 2, kHThumb.height() - 6);
    }
    w.Object("[MonitorLvl]");
    w.Key("position", SkinWriter::Pair(kMonitorLvl.x(), kMonitorLvl.y()) + ",0,0");
    w.Key("size", SkinWriter::Pair(kMonitorLvl.width(), kMonitorLvl.height()));
    w.Key("bitmap_thumb", w.Bitmap("level_thumb", hthumb));
    w.Key("bitmap_thumb_transparent_color", "255,0,255");
    w.Key("orientation", "horizontal");

    // Options.
    w.Object("[Options]");
    w.Key("position", SkinWriter::Pair(kOptions.x(), kOptions.y()));
    w.Key("size", SkinWriter::Pair(kOptions.width(), kOptions.height()));
    {
        States options = PushStates(bg, kOptions, t, 17, t.pill, t.pillOver, t.pillDown, t.pillEdge, false);
        const QColor colors[4] = {t.offText, t.offOverText, t.accent1, t.cardEdge};
        for (int s = 0; s < 4; ++s)
            Decorate(options.off[s], [&](QPainter& p) { Gear(p, QPointF(22, 17), 7.5, colors[s]); });
        w.ButtonStates("options", options, false);
    }
    w.Key("region", w.Region("wide_pill", PathRegion(PillShape(kOptions.size(), 17))));
    w.Key("caption", "Options");
    w.Key("font", captionFont);
    w.Key("align", "38,0");
    captionColors(t.offText, t.offOverText, t.accent1, t.offOverText);
    w.Key("mouseover", "1");

    // Title bar: help, about, minimise, exit.
    const struct {
        const char* section;
        const char* name;
        const char* glyph;
        int slot;
        bool exit;
    } titleButtons[] = {
        {"[Help]", "help", "?", 3, false},
        {"[About]", "about", "i", 2, false},
        {"[Minimize]", "minimize", "\xE2\x80\x93", 1, false},
        {"[Exit]", "exit", "\xC3\x97", 0, true},
    };
    for (const auto& b : titleButtons) {
        const QRect rect = TitleButton(b.slot);
        w.Object(b.section);
        w.Key("position", SkinWriter::Pair(rect.x(), rect.y()));
        w.Key("size", SkinWriter::Pair(rect.width(), rect.height()));
        States s = PushStates(bg, rect, t, kTitleButton / 2.0, t.titleButton, b.exit ? t.exitOver : t.titleButtonOver,
                              b.exit ? t.danger1 : t.titleButtonDown, t.titleButton, false);
        w.ButtonStates(b.name, s, false);
        w.Key("region", w.Region("round24", PathRegion(PillShape(rect.size(), kTitleButton / 2.0))));
        w.Key("caption", b.glyph);
        w.Key("font", b.exit ? "DejaVu Sans,-16,bold" : "DejaVu Sans,-13,bold");
        captionColors(t.label, b.exit ? QColor(255, 255, 255) : t.text, t.text, t.text);
        w.Key("mouseover", "1");
    }

    // Oscilloscope.
    w.Object("[Osci]");
    w.Key("position", SkinWriter::Pair(kOsci.x(), kOsci.y()));
    w.Key("size", SkinWriter::Pair(kOsci.width(), kOsci.height()));
    w.Key("region", w.Region("osci", PathRegion(Rounded(QRectF(0, 0, kOsci.width(), kOsci.height()), 7))));
    w.Key("color_background", SkinWriter::Color(t.oscBack));
    w.Key("color_foreground", SkinWriter::Color(t.oscTrace));

    // Device lamp: dark while no sound device is busy, lit while one is.
    {
        States lamp;
        lamp.off[3] = Crop(bg, kLamp);
        lamp.on[3] = Crop(bg, kLamp);
        Decorate(lamp.off[3], [&](QPainter& p) {
            p.setPen(Qt::NoPen);
            p.setBrush(t.lampOff);
            p.drawEllipse(QRectF(1, 1, 12, 12));
        });
        Decorate(lamp.on[3], [&](QPainter& p) {
            QRadialGradient g(QPointF(6, 5.5), 8);
            g.setColorAt(0, t.lampOn.lighter(160));
            g.setColorAt(0.5, t.lampOn);
            g.setColorAt(1, t.lampOn.darker(150));
            p.setPen(Qt::NoPen);
            p.setBrush(g);
            p.drawEllipse(QRectF(1, 1, 12, 12));
        });
        w.Object("[DevLed]");
        w.Key("position", SkinWriter::Pair(kLamp.x(), kLamp.y()));
        w.Key("size", SkinWriter::Pair(kLamp.width(), kLamp.height()));
        w.ButtonStates("lamp", lamp, true);
    }

    w.Save("Larimo skin " + t.name + ", " + std::to_string(kWidth) + " x " + std::to_string(kHeight) +
           " pixels, painted by tools/skinpainter.\n");
}

} // namespace
} // namespace larimo

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s SKIN-FOLDER (for example data/skins/en)\n", argv[0]);
        return 2;
    }
    const std::filesystem::path root = argv[1];
    std::filesystem::create_directories(root);
    larimo::PaintSkin(root, larimo::DarkTheme());
    larimo::PaintSkin(root, larimo::LightTheme());
    return 0;
}

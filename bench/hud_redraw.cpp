// What one HUD redraw for a new level costs: the view gets a new list of levels, as it does
// for every captured buffer while listening, and paints itself into an image of the panel's
// size. Reported per redraw: the time, and the heap allocations made by the view's own code
// and by Qt's painting together (counted by replacing the global operator new).
//
//   QT_QPA_PLATFORM=offscreen bench_hud_redraw

#include "hud/HUDPlacement.h"
#include "hud/HUDView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> g_allocations{0};
}

void *operator new(std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept
{
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    std::free(p);
}

using namespace vocari;

namespace {

struct Result
{
    double microseconds;
    double allocations;     // everything, Qt's painting included
    double viewAllocations; // in the view's own handling of the new levels
};

Result measure(const HUDInputs &state, int redraws)
{
    HUDView view;
    view.setAnimated(false); // each redraw shows the new levels at once
    view.resize(hudPanelSize(1.0, HUDTextMode::clip).toSize());
    view.setInputs(state);
    QImage image(view.size(), QImage::Format_ARGB32_Premultiplied);
    QList<float> levels = state.levels;
    long viewAllocations = 0;
    const auto redraw = [&](int n) {
        // The session's history: a new list each time, the oldest level gone, a new one added.
        levels = QList<float>(levels.cbegin() + 1, levels.cend());
        levels.append(float((n * 37) % 100) / 100.0f);
        const long before = g_allocations.load();
        view.setLevels(levels);
        viewAllocations += g_allocations.load() - before;
        image.fill(Qt::transparent);
        view.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    };
    for (int n = 0; n < 200; ++n) // warm caches: glyphs, icon pixmaps
        redraw(n);
    viewAllocations = 0;
    long allocationsBefore = g_allocations.load();
    QElapsedTimer timer;
    timer.start();
    for (int n = 0; n < redraws; ++n)
        redraw(n);
    const double elapsed = double(timer.nsecsElapsed()) / 1000.0;
    // The bench's own list of levels costs one allocation a redraw; it is not the view's.
    allocationsBefore += redraws;
    return {elapsed / redraws, double(g_allocations.load() - allocationsBefore) / redraws,
            double(viewAllocations) / redraws};
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    constexpr int redraws = 5000;
    const QList<float> quiet(28, 0.1f);
    const HUDInputs waveform{Dictation::Phase::listening, {}, {}, {}, false, quiet};
    HUDInputs text = waveform;
    text.transcript = QStringLiteral("and bring the drawings for the new kitchen");

    const Result a = measure(waveform, redraws);
    const Result b = measure(text, redraws);
    std::printf("HUD redraw for a new level, panel 430 x 76, %d redraws each\n", redraws);
    for (const auto &[name, r] : {std::pair{"waveform of 28 bars", a}, {"text and level meter", b}})
        std::printf("  listening, %-21s %6.1f us, %4.1f allocations a redraw (%.1f in the view, "
                    "the rest inside Qt's painting calls)\n",
                    name, r.microseconds, r.allocations, r.viewAllocations);
    std::printf("  one captured buffer of 2048 frames at 48 kHz lasts 42 667 us\n");
    return 0;
}

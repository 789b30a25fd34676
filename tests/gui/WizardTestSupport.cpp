// SPDX-License-Identifier: GPL-3.0-or-later
#include "WizardTestSupport.h"

#include "filltext.h"
#include "texts.h"
#include "wintools.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QThread>

#include <cmath>
#include <fstream>
#include <iterator>

namespace larimo {

namespace {

QApplication& Application()
{
    static int argc = 1;
    static char name[] = "wizard_test";
    static char* argv[] = {name, nullptr};
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    static QApplication app(argc, argv);
    return app;
}

uint32_t Le32(const std::vector<char>& bytes, std::size_t at)
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<uint8_t>(bytes[at + static_cast<std::size_t>(i)]);
    return value;
}

} // namespace

int RecordedMessages::ShowMessageBox(void*, const std::string& text, const std::string& caption, unsigned style)
{
    texts.push_back(text);
    captions.push_back(caption);
    styles.push_back(style);
    return IDOK;
}

void RecordedMessages::Clear()
{
    texts.clear();
    captions.clear();
    styles.clear();
}

void WizardFixture::SetUp()
{
    Application();
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_root = std::filesystem::temp_directory_path() /
             ("larimo-wizard-" + std::to_string(::getpid()) + "-" + info->name());
    std::filesystem::remove_all(m_root);
    std::filesystem::create_directories(m_root);
    std::filesystem::copy_file(std::filesystem::path(LARIMO_SOURCE_DIR) / "data" / "test.wav", m_root / "test.wav");
    SetDataRoot(m_root.string());
    static const bool texts = StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra");
    ASSERT_TRUE(texts);
    ASSERT_EQ(GetText(238), "Larimo Configuration Wizard");
    m_settings = Config(m_root.string());
    m_settings.LoadAll();
    SetMessageBoxSink(&m_messages);
}

void WizardFixture::TearDown()
{
    SetMessageBoxSink(nullptr);
    std::filesystem::remove_all(m_root);
}

SheetWatch WatchForSheet(std::function<void(CWizardSheet&)> action)
{
    auto state = std::make_shared<SheetWatchState>();
    state->timer = std::make_unique<QTimer>();
    state->timer->setInterval(10);
    SheetWatchState* raw = state.get();
    QObject::connect(state->timer.get(), &QTimer::timeout, [raw, action = std::move(action)] {
        auto* sheet = qobject_cast<CWizardSheet*>(QApplication::activeModalWidget());
        if (sheet == nullptr || raw->shown)
            return;
        raw->shown = true;
        raw->timer->stop();
        action(*sheet);
        if (sheet->isVisible())
            sheet->reject();
    });
    state->timer->start();
    return state;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() >= timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(2);
    }
    return true;
}

std::vector<uint8_t> SineBytes(double hertz, int amplitude, std::size_t samples)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(samples * 2);
    for (std::size_t i = 0; i < samples; ++i) {
        const auto value = static_cast<int16_t>(amplitude * std::sin(2.0 * M_PI * hertz * static_cast<double>(i) / 44100.0));
        const auto bits = static_cast<uint16_t>(value);
        bytes.push_back(static_cast<uint8_t>(bits & 0xFF));
        bytes.push_back(static_cast<uint8_t>(bits >> 8));
    }
    return bytes;
}

std::vector<int16_t> TestWaveSamples()
{
    std::ifstream file(std::filesystem::path(LARIMO_SOURCE_DIR) / "data" / "test.wav", std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const std::string id(bytes.data() + at, 4);
        const uint32_t size = Le32(bytes, at + 4);
        if (id == "data") {
            std::vector<int16_t> samples(std::min<std::size_t>(size, bytes.size() - at - 8) / 2);
            for (std::size_t i = 0; i < samples.size(); ++i) {
                const auto low = static_cast<uint8_t>(bytes[at + 8 + 2 * i]);
                const auto high = static_cast<uint8_t>(bytes[at + 9 + 2 * i]);
                samples[i] = static_cast<int16_t>(static_cast<uint16_t>(low | (high << 8)));
            }
            return samples;
        }
        at += 8 + size + (size & 1U);
    }
    return {};
}

std::string FillTextFor(unsigned id, const std::string& argument)
{
    return FillText(id, argument.c_str());
}

} // namespace larimo

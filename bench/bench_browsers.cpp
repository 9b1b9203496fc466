// Speed of browser and profile discovery: a discovery pass over 50 desktop
// entries (GIO's registry in a temporary XDG tree), and the profiles of a
// 2 MB Chromium "Local State".
#include "Platform/DesktopEntries.h"
#include "Services/BrowserCatalog.h"
#include "Services/ProfileDiscovery.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

using namespace Qt::Literals::StringLiterals;

namespace {

QTemporaryDir *g_root = nullptr;

void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    file.write(contents);
}

// 50 applications, 40 of them https handlers, in the user's data directory.
void makeDesktop(const QString &root)
{
    const QString applications = root + u"/data/applications"_s;
    for (int i = 0; i < 50; ++i) {
        const bool browser = i % 5 != 0;
        writeFile(applications + u"/app%1.desktop"_s.arg(i),
                  "[Desktop Entry]\nType=Application\nName=Application " + QByteArray::number(i)
                      + "\nExec=/bin/true %u\nIcon=web-browser\nCategories=Network;WebBrowser;\n"
                      + (browser
                             ? "MimeType=x-scheme-handler/http;x-scheme-handler/https;text/html;\n"
                             : "MimeType=text/plain;\n"));
    }
    QProcess::execute(u"update-desktop-database"_s, {u"-q"_s, applications});
    qputenv("XDG_DATA_HOME", QFile::encodeName(root + u"/data"_s));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(root + u"/system"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root + u"/config"_s));
    qputenv("HOME", QFile::encodeName(root + u"/home"_s));
}

// A Local State the size of a long-used browser's: 2 MB, most of it members
// that profile discovery skips.
QByteArray bigLocalState()
{
    QByteArray json =
        "{\"browser\":{\"enabled_labs_experiments\":[],\"last_redirect_origin\":\"\"},";
    for (int i = 0; json.size() < 2 * 1024 * 1024; ++i) {
        json += "\"component_" + QByteArray::number(i) + "\":{\"version\":\"1.0."
                + QByteArray::number(i) + "\",\"hash\":\"" + QByteArray(200, char('a' + i % 26))
                + "\",\"list\":[1,2,3,4,5.5,true,false,null,\"x\"],\"nested\":{\"a\":{\"b\":{\"c\":"
                  "\"d\"}}}},";
    }
    json += "\"profile\":{\"info_cache\":{";
    for (int i = 0; i < 12; ++i)
        json += (i ? "," : "") + QByteArray("\"Profile ") + QByteArray::number(i)
                + "\":{\"name\":\"Person " + QByteArray::number(i)
                + "\",\"avatar_icon\":\"chrome://theme/x\"}";
    json += "}}}";
    return json;
}

void BM_DiscoveryPass50Entries(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(BrowserCatalog::discover(GioDesktopEntries::instance()));
}
BENCHMARK(BM_DiscoveryPass50Entries)->Unit(benchmark::kMillisecond);

void BM_ChromiumProfilesOf2MBLocalState(benchmark::State &state)
{
    const QString path = g_root->path() + u"/config/google-chrome/Local State"_s;
    writeFile(path, bigLocalState());
    for (auto _ : state)
        benchmark::DoNotOptimize(ProfileDiscovery::discoverProfiles(u"google-chrome"_s));
}
BENCHMARK(BM_ChromiumProfilesOf2MBLocalState)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir root;
    g_root = &root;
    makeDesktop(root.path());
    QCoreApplication app(argc, argv);

    // The first pass of a process also has GIO read every desktop entry.
    QElapsedTimer cold;
    cold.start();
    const qsizetype found =
        BrowserCatalog::discover(GioDesktopEntries::instance()).size();
    std::printf(
        "First discovery pass of the process (GIO reads the entries): %.2f ms, %lld browsers\n",
        double(cold.nsecsElapsed()) / 1e6, static_cast<long long>(found));

    return BenchSupport::runBenchmarks(argc, argv);
}

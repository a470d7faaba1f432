// GSettings on the velmora backend (gsettings/, the built module) beside the
// standard backend (Debian's dconf-gsettings-backend), in one run, on one
// private bus where both velmorad and dconf-service start on the first
// request, with a scratch home and a schema compiled here:
// - g_settings_get_string / g_settings_get_int of a set key on a loaded
//   schema, in this process, and the backend's own read of that key;
// - g_settings_set_int in this process -> changed::n in a second process (a
//   child of this program reporting CLOCK_MONOTONIC stamps through its
//   standard output), one write in flight at a time, 10 ms apart;
// - one `gsettings set` process, from its start to its exit.
// Without the standard backend installed (scripts/bench-gsettings installs
// it) only the velmora figures are measured.
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gsettingsbackend.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "BenchSupport.h"
#include "PrivateBus.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

constexpr const char* kSchema = "org.example.Bench";
constexpr const char* kWatchVariable = "VELMORA_GSETTINGS_BENCH_WATCH";
constexpr const char* kDconfService = "/usr/libexec/dconf-service";
constexpr int kEvents = 60;
constexpr int kProcesses = 20;
const char* const kBackends[] = {"velmora", "dconf"};

std::int64_t monotonicNanos() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The backend named name, made from its GIO extension; null when absent.
GSettingsBackend* backendNamed(const char* name) {
  GIOExtensionPoint* point = g_io_extension_point_lookup(G_SETTINGS_BACKEND_EXTENSION_POINT_NAME);
  GIOExtension* extension = point != nullptr ? g_io_extension_point_get_extension_by_name(point, name) : nullptr;
  return extension != nullptr ? G_SETTINGS_BACKEND(g_object_new(g_io_extension_get_type(extension), nullptr)) : nullptr;
}

// The schema on backend, with "r" set to the string the peer's probe reads.
GSettings* loadedSettings(benchmark::State& state, const char* backendName) {
  static GSettingsBackend* backends[2] = {backendNamed(kBackends[0]), backendNamed(kBackends[1])};
  GSettingsBackend* backend = backends[std::string(backendName) == kBackends[0] ? 0 : 1];
  if (backend == nullptr) {
    state.SkipWithError("backend not installed");
    return nullptr;
  }
  GSettings* settings = g_settings_new_full(
      g_settings_schema_source_lookup(g_settings_schema_source_get_default(), kSchema, FALSE), backend, nullptr);
  g_settings_set_string(settings, "r", "hello, world");
  g_settings_set_int(settings, "i", 42);
  g_settings_sync();
  return settings;
}

void timeGetString(benchmark::State& state, const char* backend) {
  GSettings* settings = loadedSettings(state, backend);
  if (settings == nullptr) return;
  for (auto _ : state) {
    gchar* value = g_settings_get_string(settings, "r");
    benchmark::DoNotOptimize(value);
    g_free(value);
  }
  g_object_unref(settings);
}

void timeGetInt(benchmark::State& state, const char* backend) {
  GSettings* settings = loadedSettings(state, backend);
  if (settings == nullptr) return;
  for (auto _ : state) benchmark::DoNotOptimize(g_settings_get_int(settings, "i"));
  g_object_unref(settings);
}

// The backend's own read of the same key, without GSettings around it.
void timeBackendRead(benchmark::State& state, const char* backend) {
  GSettings* settings = loadedSettings(state, backend);
  if (settings == nullptr) return;
  GSettingsBackend* object = nullptr;
  g_object_get(settings, "backend", &object, nullptr);
  GSettingsBackendClass* methods = G_SETTINGS_BACKEND_GET_CLASS(object);
  for (auto _ : state) {
    GVariant* value = methods->read(object, "/org/example/Bench/i", G_VARIANT_TYPE_INT32, FALSE);
    benchmark::DoNotOptimize(value);
    if (value != nullptr) g_variant_unref(value);
  }
  g_object_unref(object);
  g_object_unref(settings);
}

// Per event, g_settings_set_int -> changed in the second process.
void timeSetToChanged(benchmark::State& state, const char* backend) {
  GSettings* settings = loadedSettings(state, backend);
  if (settings == nullptr) return;
  std::unique_ptr<velmora::testing::ChildProcess> watcher = velmora::testing::ChildProcess::start(
      {"/proc/self/exe"}, {std::string(kWatchVariable) + "=1", std::string("GSETTINGS_BACKEND=") + backend});
  if (!watcher || watcher->readLine(10000ms) != "ready") {
    state.SkipWithError("no watcher process");
    g_object_unref(settings);
    return;
  }
  static int value = 0;
  for (auto _ : state) {
    ++value;
    const std::int64_t start = monotonicNanos();
    g_settings_set_int(settings, "n", value);
    std::int64_t seenAt = -1;
    while (seenAt < 0) {
      const std::optional<std::string> line = watcher->readLine(5000ms);
      if (!line) break;
      int seen = 0;
      long long at = 0;
      if (std::sscanf(line->c_str(), "seen %d %lld", &seen, &at) == 2 && seen >= value) seenAt = at;
    }
    if (seenAt < 0) {
      state.SkipWithError("the watcher did not see the change");
      break;
    }
    state.SetIterationTime(static_cast<double>(seenAt - start) / 1e9);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    std::this_thread::sleep_for(10ms);
  }
  g_settings_sync();
  g_object_unref(settings);
}

// One `gsettings set` process, start to exit. With quietPressure, libzkv
// watches no memory pressure (whose kernel trigger costs the process's exit
// a wait), to show that part of the figure.
void timeToolProcess(benchmark::State& state, const char* backend, bool quietPressure) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::string_view(*e).rfind("GSETTINGS_BACKEND=", 0) != 0) env.emplace_back(*e);
  }
  env.push_back(std::string("GSETTINGS_BACKEND=") + backend);
  if (quietPressure) env.push_back("MEMORY_PRESSURE_WATCH=/dev/null");
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  static int value = 0;
  for (auto _ : state) {
    std::string text = std::to_string(++value);
    const char* argv[] = {"/usr/bin/gsettings", "set", kSchema, "n", text.c_str(), nullptr};
    const std::int64_t start = monotonicNanos();
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), envp.data()) != 0 ||
        ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("gsettings set failed");
      break;
    }
    state.SetIterationTime(static_cast<double>(monotonicNanos() - start) / 1e9);
  }
}

// The child: prints "ready" once its settings are loaded and watched, then
// "seen <n> <monotonic ns>" for every change of n; runs until killed.
int runWatcher() {
  GSettings* settings = g_settings_new(kSchema);
  g_signal_connect(settings, "changed::n", G_CALLBACK(+[](GSettings* s, const gchar*, gpointer) {
                     const std::int64_t at = monotonicNanos();
                     std::printf("seen %d %" PRId64 "\n", g_settings_get_int(s, "n"), at);
                     std::fflush(stdout);
                   }),
                   nullptr);
  (void)g_settings_get_int(settings, "n");
  std::printf("ready\n");
  std::fflush(stdout);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  return 0;
}

// The schema, compiled into <home>/schemas.
bool compileSchema(const std::string& home) {
  const std::string directory = home + "/schemas";
  std::filesystem::create_directories(directory);
  std::ofstream(directory + "/org.example.Bench.gschema.xml")
      << "<schemalist><schema id=\"org.example.Bench\" path=\"/org/example/Bench/\">"
         "<key name=\"r\" type=\"s\"><default>''</default></key><key name=\"i\" type=\"i\"><default>0</default></key>"
         "<key name=\"n\" type=\"i\"><default>0</default></key></schema></schemalist>\n";
  const std::string command = "/usr/bin/glib-compile-schemas " + directory;
  return std::system(command.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv(kWatchVariable) != nullptr) return runWatcher();
  velmora::testing::ScratchDirectory home("velmora-gsettings-bench");
  const std::string h = home.path().string();
  ::mkdir((h + "/runtime").c_str(), 0700);
  // What every process of the run sees, set before GLib reads any of it.
  const std::vector<std::pair<const char*, std::string>> variables = {
      {"HOME", h},
      {"XDG_CONFIG_HOME", h + "/config"},
      {"XDG_RUNTIME_DIR", h + "/runtime"},
      {"GSETTINGS_SCHEMA_DIR", h + "/schemas"},
      {"GIO_EXTRA_MODULES", VELMORA_GSETTINGS_MODULE_DIR},
      {"GSETTINGS_BACKEND", "memory"}};
  for (const auto& [name, value] : variables) ::setenv(name, value.c_str(), 1);
  if (!compileSchema(h)) return 1;
  velmora::testing::PrivateBus& bus = velmora::testing::PrivateBus::instance();
  bus.installService("com.vantrel.velmorad-sim", {"/usr/bin/env", "HOME=" + h, VELMORAD_PATH});
  bus.installService("ca.desrt.dconf", {"/usr/bin/env", "HOME=" + h, "XDG_CONFIG_HOME=" + h + "/config",
                                        "XDG_RUNTIME_DIR=" + h + "/runtime", kDconfService});
  // Loads every GSettings backend module; the default stays in memory.
  (void)g_settings_backend_get_default();

  const bool withStandard = backendNamed("dconf") != nullptr && ::access(kDconfService, X_OK) == 0;
  if (!withStandard) std::printf("dconf-gsettings-backend is not installed: velmora figures only\n");
  for (const char* backend : kBackends) {
    if (!withStandard && std::string(backend) != "velmora") continue;
    const std::string suffix = std::string("/") + backend;
    benchmark::RegisterBenchmark(("BM_GetString" + suffix).c_str(), timeGetString, backend);
    benchmark::RegisterBenchmark(("BM_GetInt" + suffix).c_str(), timeGetInt, backend);
    benchmark::RegisterBenchmark(("BM_BackendRead" + suffix).c_str(), timeBackendRead, backend);
    benchmark::RegisterBenchmark(("BM_SetToChangedInSecondProcess" + suffix).c_str(), timeSetToChanged, backend)
        ->UseManualTime()
        ->Iterations(kEvents);
    benchmark::RegisterBenchmark(("BM_GsettingsSetProcess" + suffix).c_str(), timeToolProcess, backend, false)
        ->UseManualTime()
        ->Iterations(kProcesses);
  }
  benchmark::RegisterBenchmark("BM_GsettingsSetProcessNoPressureWatch/velmora", timeToolProcess, "velmora", true)
      ->UseManualTime()
      ->Iterations(kProcesses);
  velmora::bench::runBenchmarks(argc, argv, true, [](const velmora::bench::Figures& nanos, const char* kind) {
    const auto figure = [&](const std::string& name) {
      auto it = nanos.find(name);
      return it != nanos.end() ? it->second : 0.0;
    };
    // Our benchmark, the standard backend's to set it beside, and the line's label.
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"BM_GetString", "BM_GetString", "g_settings_get_string (goal: at most dconf's)"},
        {"BM_GetInt", "BM_GetInt", "g_settings_get_int (goal: at most dconf's)"},
        {"BM_BackendRead", "BM_BackendRead", "the backend's read vfunc alone, int32 key"},
        {"BM_SetToChangedInSecondProcess", "BM_SetToChangedInSecondProcess",
         "g_settings_set_int -> changed in a second process (goal: at most half of dconf's)"},
        {"BM_GsettingsSetProcess", "BM_GsettingsSetProcess",
         "a `gsettings set` process, start to exit (goal: at most dconf's)"},
        {"BM_GsettingsSetProcessNoPressureWatch", "BM_GsettingsSetProcess",
         "  the same without libzkv's memory-pressure watch"}};
    for (const auto& [name, standard, label] : rows) {
      const double ours = figure(std::string(name) + "/velmora");
      const double theirs = figure(std::string(standard) + "/dconf");
      if (ours <= 0) continue;
      if (theirs > 0) {
        std::printf("%s%s: velmora %.3f us, dconf %.3f us, ratio %.2f\n", label, kind, ours / 1000.0, theirs / 1000.0,
                    ours / theirs);
      } else {
        std::printf("%s%s: velmora %.3f us\n", label, kind, ours / 1000.0);
      }
    }
  });
  g_settings_sync();
  bus.stop();
  return 0;
}

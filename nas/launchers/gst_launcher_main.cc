// Stands where the library expects the NAS's gst-launch-1.0 build: runs the
// library's pipeline words on the stock GStreamer, from a start position.
//
//   gst-launcher [-f] [-s SECONDS | -S SECONDS] <pipeline words>
//
// "-f" (no fault handler) is the default here. "-s"/"-S" start the pipeline
// that many seconds into the source: it prerolls in PAUSED, seeks there
// (FLUSH | ACCURATE), then plays. NAS elements that this machine lacks are
// replaced and the NAS mpegtsmux's "shift-pts" is emulated with pad offsets
// (element_substitutes.h). SIGINT and SIGTERM end the pipeline with an EOS,
// so what was written so far is a complete stream.
//
// Exit status: 0 after the end of the stream; 1 on a pipeline error; 2 on bad
// usage or words that make no pipeline; 128 + the signal number after a stop
// on SIGINT or SIGTERM.
#include <glib-unix.h>
#include <gst/gst.h>

#include <signal.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "nas/launchers/element_substitutes.h"
#include "nas/launchers/option_table.h"

namespace {

constexpr char kProgram[] = "gst-launcher";
constexpr int kFailed = 1;
constexpr int kUsage = 2;
// Opening, prerolling and seeking a local file takes well under a second;
// anything near this is a pipeline that will never start.
constexpr guint kStartTimeoutSeconds = 30;
// After EOS was sent on a stop request, the time allowed to drain.
constexpr guint kDrainTimeoutSeconds = 3;

struct Options {
  long long startSeconds = 0;
  std::vector<std::string> words;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string option = argv[i];
    if (option == "-f") continue;
    if ((option == "-s" || option == "-S") && i + 1 < argc &&
        launchers::ParseWholeSeconds(argv[i + 1], &options->startSeconds)) {
      ++i;
      continue;
    }
    fprintf(stderr, "%s: unknown option or bad value: %s\n", kProgram, argv[i]);
    return false;
  }
  options->words.assign(argv + i, argv + argc);
  if (options->words.empty()) {
    fprintf(stderr, "usage: %s [-f] [-s SECONDS | -S SECONDS] <pipeline words>\n", kProgram);
    return false;
  }
  return true;
}

bool ElementExists(const std::string& name) {
  GstElementFactory* factory = gst_element_factory_find(name.c_str());
  if (!factory) return false;
  gst_object_unref(factory);
  return true;
}

bool ElementHasProperty(const std::string& element, const std::string& property) {
  GstElementFactory* factory = gst_element_factory_find(element.c_str());
  if (!factory) return false;
  auto* loaded = GST_ELEMENT_FACTORY(gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory)));
  gst_object_unref(factory);
  if (!loaded) return false;
  gpointer klass = g_type_class_ref(gst_element_factory_get_element_type(loaded));
  const bool found = g_object_class_find_property(G_OBJECT_CLASS(klass), property.c_str());
  g_type_class_unref(klass);
  gst_object_unref(loaded);
  return found;
}

// What a NAS mpegtsmux does with "shift-pts": every stream's running time
// moves by the offset, so the output carries the source's timeline after a
// seek. Sink pads are requested while the pipeline links, some only once a
// demuxer's pads appear, so new ones get it too.
void ShiftPad(GstPad* pad, gint64 offset) {
  if (GST_PAD_IS_SINK(pad)) gst_pad_set_offset(pad, offset);
}

void OnPadAdded(GstElement*, GstPad* pad, gpointer offset) {
  ShiftPad(pad, *static_cast<gint64*>(offset));
}

gboolean ShiftExistingPad(GstElement*, GstPad* pad, gpointer offset) {
  ShiftPad(pad, *static_cast<gint64*>(offset));
  return TRUE;
}

class Run {
 public:
  Run(GstElement* pipeline, long long startSeconds)
      : pipeline_(pipeline), startSeconds_(startSeconds), loop_(g_main_loop_new(nullptr, FALSE)) {}
  ~Run() { g_main_loop_unref(loop_); }

  bool ShiftTimestamps(const std::vector<launchers::TimestampShift>& shifts) {
    offsets_.reserve(shifts.size());  // the signal handlers keep pointers into it
    for (const launchers::TimestampShift& shift : shifts) {
      GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), shift.element.c_str());
      if (!element) {
        fprintf(stderr, "%s: no element named %s to shift\n", kProgram, shift.element.c_str());
        return false;
      }
      offsets_.push_back(static_cast<gint64>(shift.seconds) * GST_SECOND);
      g_signal_connect(element, "pad-added", G_CALLBACK(OnPadAdded), &offsets_.back());
      gst_element_foreach_sink_pad(element, ShiftExistingPad, &offsets_.back());
      gst_object_unref(element);
    }
    return true;
  }

  int Play() {
    GstBus* bus = gst_element_get_bus(pipeline_);
    const guint busWatch = gst_bus_add_watch(bus, OnMessage, this);
    gst_object_unref(bus);
    const guint interrupt = g_unix_signal_add(SIGINT, OnInterrupt, this);
    const guint terminate = g_unix_signal_add(SIGTERM, OnTerminate, this);
    startTimeout_ = g_timeout_add_seconds(kStartTimeoutSeconds, OnStartTimeout, this);

    const GstStateChangeReturn change = gst_element_set_state(pipeline_, GST_STATE_PAUSED);
    if (change == GST_STATE_CHANGE_FAILURE) {
      Finish(kFailed, "the pipeline cannot start");
    } else if (change == GST_STATE_CHANGE_NO_PREROLL && startSeconds_ > 0) {
      // Nothing prerolls (a live element), so there is no moment to seek in.
      Finish(kFailed, "a live pipeline cannot start at " + std::to_string(startSeconds_) + " s");
    } else if (change != GST_STATE_CHANGE_ASYNC) {
      Prerolled();
    }
    if (!done_) g_main_loop_run(loop_);

    gst_element_set_state(pipeline_, GST_STATE_NULL);
    g_source_remove(busWatch);
    g_source_remove(interrupt);
    g_source_remove(terminate);
    RemoveSource(&startTimeout_);
    RemoveSource(&drainTimeout_);
    return status_;
  }

 private:
  enum class Phase { kPrerolling, kSeeking, kPlaying };

  static void RemoveSource(guint* source) {
    if (*source != 0) g_source_remove(*source);
    *source = 0;
  }

  void Finish(int status, const std::string& message) {
    if (done_) return;
    if (!message.empty()) fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
    done_ = true;
    status_ = status;
    g_main_loop_quit(loop_);
  }

  void Prerolled() {
    if (phase_ == Phase::kPrerolling && startSeconds_ > 0) {
      phase_ = Phase::kSeeking;
      // Not KEY_UNIT: qtdemux then aligns the segment to the audio frame
      // before the keyframe, the decoder emits a sliver of the picture before
      // it, and every later picture sits that much off the 5-second grid;
      // keyframes every 5 s of frames then land just before each boundary
      // and a segmenter downstream cuts its first segment 5 s late.
      const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
      if (!gst_element_seek_simple(pipeline_, GST_FORMAT_TIME, flags,
                                   static_cast<gint64>(startSeconds_) * GST_SECOND)) {
        Finish(kFailed, "cannot seek to " + std::to_string(startSeconds_) + " s");
      }
      return;  // the flushing seek prerolls again and posts another ASYNC_DONE
    }
    phase_ = Phase::kPlaying;
    RemoveSource(&startTimeout_);
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
      Finish(kFailed, "the pipeline cannot play");
    }
  }

  static gboolean OnMessage(GstBus*, GstMessage* message, gpointer data) {
    Run* run = static_cast<Run*>(data);
    switch (GST_MESSAGE_TYPE(message)) {
      case GST_MESSAGE_ASYNC_DONE:
        if (run->phase_ != Phase::kPlaying) run->Prerolled();
        break;
      case GST_MESSAGE_EOS:
        run->Finish(run->stopSignal_ != 0 ? 128 + run->stopSignal_ : 0, "");
        break;
      case GST_MESSAGE_ERROR: {
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(message, &error, &debug);
        run->Finish(kFailed, std::string("error from ") + GST_OBJECT_NAME(message->src) + ": " +
                                 (error ? error->message : "unknown") +
                                 (debug ? std::string(" (") + debug + ")" : ""));
        g_clear_error(&error);
        g_free(debug);
        break;
      }
      default:
        break;
    }
    return G_SOURCE_CONTINUE;
  }

  // The first request drains the pipeline; a second one, or a pipeline that
  // does not drain in time, ends it at once.
  void Stop(int signal) {
    if (stopSignal_ != 0 || phase_ != Phase::kPlaying) {
      if (stopSignal_ == 0) stopSignal_ = signal;
      Finish(128 + stopSignal_, "");
      return;
    }
    stopSignal_ = signal;
    gst_element_send_event(pipeline_, gst_event_new_eos());
    drainTimeout_ = g_timeout_add_seconds(kDrainTimeoutSeconds, OnDrainTimeout, this);
  }

  static gboolean OnInterrupt(gpointer data) {
    static_cast<Run*>(data)->Stop(SIGINT);
    return G_SOURCE_CONTINUE;
  }

  static gboolean OnTerminate(gpointer data) {
    static_cast<Run*>(data)->Stop(SIGTERM);
    return G_SOURCE_CONTINUE;
  }

  static gboolean OnDrainTimeout(gpointer data) {
    Run* run = static_cast<Run*>(data);
    run->drainTimeout_ = 0;
    run->Finish(128 + run->stopSignal_, "the pipeline did not drain in time; stopped");
    return G_SOURCE_REMOVE;
  }

  static gboolean OnStartTimeout(gpointer data) {
    Run* run = static_cast<Run*>(data);
    run->startTimeout_ = 0;
    run->Finish(kFailed, "the pipeline did not start in time");
    return G_SOURCE_REMOVE;
  }

  GstElement* pipeline_;
  long long startSeconds_;
  GMainLoop* loop_;
  std::vector<gint64> offsets_;
  Phase phase_ = Phase::kPrerolling;
  guint startTimeout_ = 0;
  guint drainTimeout_ = 0;
  int stopSignal_ = 0;
  bool done_ = false;
  int status_ = kFailed;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) return kUsage;
  gst_init(nullptr, nullptr);

  launchers::PipelinePlan plan;
  std::string planError;
  if (!launchers::PlanPipeline(options.words, ElementExists, ElementHasProperty, &plan,
                               &planError)) {
    fprintf(stderr, "%s: %s\n", kProgram, planError.c_str());
    return kUsage;
  }
  for (const std::string& note : plan.notes) fprintf(stderr, "%s: %s\n", kProgram, note.c_str());

  std::vector<gchar*> words;
  for (std::string& word : plan.words) words.push_back(&word[0]);
  words.push_back(nullptr);
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launchv(const_cast<const gchar**>(words.data()), &error);
  if (!pipeline || error) {
    fprintf(stderr, "%s: no pipeline from these words: %s\n", kProgram,
            error ? error->message : "unknown error");
    g_clear_error(&error);
    if (pipeline) gst_object_unref(pipeline);
    return kUsage;
  }
  if (!GST_IS_PIPELINE(pipeline)) {
    GstElement* wrapper = gst_pipeline_new(nullptr);
    gst_bin_add(GST_BIN(wrapper), pipeline);
    pipeline = wrapper;
  }
  int status = kUsage;
  {
    Run run(pipeline, options.startSeconds);
    if (run.ShiftTimestamps(plan.shifts)) status = run.Play();
  }
  gst_object_unref(pipeline);
  return status;
}

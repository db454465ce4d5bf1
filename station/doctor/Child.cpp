#include "doctor/Child.h"

#include <memory>

#include <gio/gio.h>

#include "base/Callback.h"
#include "base/Handles.h"

namespace station {
namespace {

// From the kill of a child until it is abandoned.
constexpr guint kGraceMs = 1000;

struct ContextUnref {
  void operator()(GMainContext* context) const {
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }
};

class Wait {
 public:
  Wait(GSubprocess* child, std::chrono::milliseconds limit)
      : child_(child), cancellable_(g_cancellable_new()), context_(g_main_context_new()) {
    g_main_context_push_thread_default(context_.get());
    after(static_cast<guint>(limit.count()), kill);
    after(static_cast<guint>(limit.count()) + kGraceMs, leave);
    g_subprocess_communicate_async(child, nullptr, cancellable_.get(), guarded<finish>, this);
  }

  ChildResult run() {
    while (!done_) {
      g_main_context_iteration(context_.get(), TRUE);
    }
    return result_;
  }

 private:
  void after(guint milliseconds, GSourceFunc call) {
    g_autoptr(GSource) source = g_timeout_source_new(milliseconds);
    g_source_set_callback(source, call, this, nullptr);
    g_source_attach(source, context_.get());
  }

  static gboolean kill(gpointer self) {
    auto* const wait = static_cast<Wait*>(self);
    wait->timedOut_ = true;
    g_subprocess_force_exit(wait->child_);
    return G_SOURCE_REMOVE;
  }

  static gboolean leave(gpointer self) {
    g_cancellable_cancel(static_cast<Wait*>(self)->cancellable_.get());
    return G_SOURCE_REMOVE;
  }

  static void finish(GObject*, GAsyncResult* asyncResult, gpointer self) {
    static_cast<Wait*>(self)->read(asyncResult);
  }

  void read(GAsyncResult* asyncResult) {
    done_ = true;
    g_autoptr(GBytes) output = nullptr;
    const bool complete =
        g_subprocess_communicate_finish(child_, asyncResult, &output, nullptr, nullptr) == TRUE;
    if (output != nullptr && g_bytes_get_size(output) > 0) {
      gsize size = 0;
      const auto* const bytes = static_cast<const gchar*>(g_bytes_get_data(output, &size));
      g_autofree gchar* text = g_utf8_make_valid(bytes, static_cast<gssize>(size));
      result_.output = text;
    }
    if (timedOut_ || !complete) {
      result_.end = ChildResult::End::TimedOut;
    } else if (g_subprocess_get_if_signaled(child_)) {
      result_.end = ChildResult::End::Signalled;
      result_.code = g_subprocess_get_term_sig(child_);
    } else {
      result_.end = ChildResult::End::Exited;
      result_.code = g_subprocess_get_exit_status(child_);
    }
  }

  GSubprocess* const child_;
  const GstPtr<GCancellable> cancellable_;
  const std::unique_ptr<GMainContext, ContextUnref> context_;
  ChildResult result_;
  bool timedOut_ = false;
  bool done_ = false;
};

}  // namespace

ChildResult runTimed(const std::vector<std::string>& arguments, std::chrono::milliseconds limit) {
  std::vector<const gchar*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocess) child =
      g_subprocess_newv(argv.data(),
                        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                                      G_SUBPROCESS_FLAGS_STDERR_MERGE),
                        &error);
  if (child == nullptr) {
    return {ChildResult::End::NotStarted, 0, error->message};
  }
  return Wait(child, limit).run();
}

}  // namespace station

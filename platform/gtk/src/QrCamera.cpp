#include "QrCamera.hpp"

#include "GtkViews.hpp"
#include "MainContextQueue.hpp"

#include <kelvane/Log.hpp>

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtk/gtk.h>
#include <zbar.h>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace kelvane::gtk {
namespace {

using Codes = std::vector<std::optional<std::string>>;
using namespace std::chrono_literals;
// zbar's C interface sits in this namespace when compiled as C++.
using namespace zbar;

// How long each image stays in the picture before the next one comes.
constexpr auto kImageInterval = 400ms;
// How long starting a device may take before the session gives up on it.
constexpr GstClockTime kStartBound = 5 * GST_SECOND;

Error posixError(int code, const std::string& message) { return Error{"NSPOSIXErrorDomain", code, message}; }

// One picture, RGBA, rows of `stride` bytes.
struct Frame {
    int width = 0;
    int height = 0;
    int stride = 0;
    std::shared_ptr<GBytes> pixels;
};

std::shared_ptr<GBytes> ownBytes(GBytes* bytes) { return {bytes, g_bytes_unref}; }

// zbar over Y800 greyscale, QR codes only.
class QrDecoder {
public:
    QrDecoder() : scanner_(zbar_image_scanner_create()) {
        zbar_image_scanner_set_config(scanner_, ZBAR_NONE, ZBAR_CFG_ENABLE, 0);
        zbar_image_scanner_set_config(scanner_, ZBAR_QRCODE, ZBAR_CFG_ENABLE, 1);
    }
    ~QrDecoder() { zbar_image_scanner_destroy(scanner_); }
    QrDecoder(const QrDecoder&) = delete;
    QrDecoder& operator=(const QrDecoder&) = delete;

    Codes decode(const Frame& frame) {
        gsize size = 0;
        const auto* rgba = static_cast<const guint8*>(g_bytes_get_data(frame.pixels.get(), &size));
        if (frame.width <= 0 || frame.height <= 0 ||
            size < static_cast<gsize>(frame.stride) * (frame.height - 1) + static_cast<gsize>(frame.width) * 4) {
            return {};
        }
        grey_.resize(static_cast<std::size_t>(frame.width) * frame.height);
        for (int y = 0; y < frame.height; ++y) {
            const guint8* row = rgba + static_cast<std::size_t>(y) * frame.stride;
            for (int x = 0; x < frame.width; ++x) {
                const guint8* pixel = row + x * 4;
                grey_[static_cast<std::size_t>(y) * frame.width + x] =
                    static_cast<unsigned char>((77 * pixel[0] + 150 * pixel[1] + 29 * pixel[2]) >> 8);
            }
        }
        zbar_image_t* image = zbar_image_create();
        zbar_image_set_format(image, zbar_fourcc('Y', '8', '0', '0'));
        zbar_image_set_size(image, frame.width, frame.height);
        zbar_image_set_data(image, grey_.data(), grey_.size(), nullptr);
        Codes codes;
        if (zbar_scan_image(scanner_, image) > 0) {
            for (auto* symbol = zbar_image_first_symbol(image); symbol; symbol = zbar_symbol_next(symbol)) {
                if (zbar_symbol_get_type(symbol) != ZBAR_QRCODE) continue;
                const char* data = zbar_symbol_get_data(symbol);
                if (data) {
                    codes.emplace_back(std::string(data, zbar_symbol_get_data_length(symbol)));
                } else {
                    codes.emplace_back(std::nullopt);
                }
            }
        }
        zbar_image_destroy(image);
        return codes;
    }

private:
    zbar_image_scanner_t* scanner_;
    std::vector<unsigned char> grey_;
};

// What a session shares with the thread that makes its pictures and with the main context.
struct Pictures {
    std::mutex mutex;
    std::condition_variable changed;
    std::shared_ptr<Queue> queue;
    std::function<void(Codes)> onCodes;
    // The codes of the last detection, until a picture shows other ones.
    Codes shown;
    std::optional<Frame> latest;
    bool previewPending = false;
    // The preview widget; main thread only.
    GtkWidget* picture = nullptr;
    // Used by one producing thread at a time, under `decoding`.
    std::mutex decoding;
    QrDecoder decoder;

    ~Pictures() { releaseOnMain(picture); }
};

void showLatest(const std::shared_ptr<Pictures>& pictures) {
    std::optional<Frame> frame;
    {
        std::lock_guard lock(pictures->mutex);
        pictures->previewPending = false;
        frame = pictures->latest;
    }
    if (!frame || !pictures->picture) return;
    GdkTexture* texture = gdk_memory_texture_new(frame->width, frame->height, GDK_MEMORY_R8G8B8A8,
                                                 frame->pixels.get(), frame->stride);
    gtk_picture_set_paintable(GTK_PICTURE(pictures->picture), GDK_PAINTABLE(texture));
    g_object_unref(texture);
}

// A new picture: its codes to the output when they differ from the last ones seen, and the
// picture to the preview. Called on the producing thread.
void take(const std::shared_ptr<Pictures>& pictures, Frame frame) {
    Codes codes;
    {
        std::lock_guard lock(pictures->decoding);
        codes = pictures->decoder.decode(frame);
    }
    bool post = false;
    {
        std::lock_guard lock(pictures->mutex);
        if (codes.empty()) {
            pictures->shown.clear();
        } else if (codes != pictures->shown && pictures->onCodes) {
            pictures->shown = codes;
            pictures->queue->async([onCodes = pictures->onCodes, codes] { onCodes(codes); });
        }
        pictures->latest = std::move(frame);
        post = !pictures->previewPending;
        pictures->previewPending = true;
    }
    // At most one picture waits for the main context; it shows the newest when it runs.
    if (post) {
        onMainThread([weak = std::weak_ptr<Pictures>(pictures)] {
            if (auto pictures = weak.lock()) showLatest(pictures);
        });
    }
}

std::optional<Frame> readImage(const std::filesystem::path& path) {
    GError* error = nullptr;
    GdkPixbuf* loaded = gdk_pixbuf_new_from_file(path.c_str(), &error);
    if (!loaded) {
        logLine("Unable to read the QR image " + path.string() + ": " + (error ? error->message : "unknown error"));
        g_clear_error(&error);
        return std::nullopt;
    }
    GdkPixbuf* rgba = gdk_pixbuf_add_alpha(loaded, FALSE, 0, 0, 0);
    g_object_unref(loaded);
    Frame frame;
    frame.width = gdk_pixbuf_get_width(rgba);
    frame.height = gdk_pixbuf_get_height(rgba);
    frame.stride = gdk_pixbuf_get_rowstride(rgba);
    frame.pixels = ownBytes(gdk_pixbuf_read_pixel_bytes(rgba));
    g_object_unref(rgba);
    return frame;
}

// The output and the preview, common to both kinds of session.
class PictureSession : public platform::CaptureSession {
public:
    bool canAddMetadataOutput() const override { return true; }

    void addMetadataOutput(std::shared_ptr<Queue> queue, std::function<void(Codes)> onCodes) override {
        std::lock_guard lock(pictures_->mutex);
        pictures_->queue = std::move(queue);
        pictures_->onCodes = std::move(onCodes);
        pictures_->changed.notify_all();
    }

    void attachPreview(std::shared_ptr<platform::View> view, platform::Rect frame) override {
        if (!view) return;
        GtkWidget* picture = gtk_picture_new();
        gtk_picture_set_content_fit(GTK_PICTURE(picture), GTK_CONTENT_FIT_COVER);
        gtk_widget_set_can_target(picture, FALSE);
        auto pictureView = std::make_shared<WidgetView>(picture, frame);
        view->addSubview(pictureView);
        releaseOnMain(pictures_->picture);
        pictures_->picture = GTK_WIDGET(g_object_ref(picture));
        showLatest(pictures_);
    }

protected:
    std::shared_ptr<Pictures> pictures_ = std::make_shared<Pictures>();
};

// The images, one after the other, on a thread of the session's own; the last one stays in
// the picture.
class ImageSession final : public PictureSession {
public:
    explicit ImageSession(std::vector<std::filesystem::path> images) : images_(std::move(images)) {}
    ~ImageSession() override { stopRunning(); }

    std::optional<Error> addDefaultVideoInput() override {
        for (const auto& image : images_) {
            if (::access(image.c_str(), R_OK) != 0) {
                return posixError(errno, "The QR image " + image.string() + " cannot be read: " + std::strerror(errno));
            }
        }
        return std::nullopt;
    }

    bool isRunning() const override {
        std::lock_guard lock(pictures_->mutex);
        return running_;
    }

    void startRunning() override {
        std::lock_guard control(control_);
        {
            std::lock_guard lock(pictures_->mutex);
            if (running_) return;
            running_ = true;
        }
        if (feeder_.joinable()) feeder_.join();
        feeder_ = std::thread([this] { feed(); });
    }

    void stopRunning() override {
        std::lock_guard control(control_);
        {
            std::lock_guard lock(pictures_->mutex);
            running_ = false;
            pictures_->changed.notify_all();
        }
        if (feeder_.joinable()) feeder_.join();
    }

private:
    void feed() {
        for (;;) {
            std::unique_lock lock(pictures_->mutex);
            // A picture before the output is there would be seen by nobody.
            pictures_->changed.wait(lock, [&] { return !running_ || pictures_->onCodes; });
            if (!running_ || next_ >= images_.size()) return;
            auto path = images_[next_++];
            lock.unlock();
            if (auto frame = readImage(path)) take(pictures_, std::move(*frame));
            lock.lock();
            if (next_ >= images_.size()) return;
            pictures_->changed.wait_for(lock, kImageInterval, [&] { return !running_; });
        }
    }

    std::vector<std::filesystem::path> images_;
    std::mutex control_;
    std::thread feeder_;
    // Under the pictures' mutex.
    bool running_ = false;
    std::size_t next_ = 0;
};

void startGStreamer() {
    static std::once_flag once;
    std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

// The first error on the pipeline's bus, if any.
std::optional<Error> busError(GstElement* pipeline) {
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    gst_object_unref(bus);
    if (!message) return std::nullopt;
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    Error result{error ? g_quark_to_string(error->domain) : "GStreamer", error ? error->code : 0,
                 error && error->message ? error->message : "The camera failed"};
    g_clear_error(&error);
    gst_message_unref(message);
    return result;
}

// v4l2src ! videoconvert ! RGBA ! appsink, each sample a picture.
class DeviceSession final : public PictureSession {
public:
    explicit DeviceSession(std::filesystem::path device) : device_(std::move(device)) {}
    ~DeviceSession() override {
        std::lock_guard lock(control_);
        if (!pipeline_) return;
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(pipeline_);
    }

    std::optional<Error> addDefaultVideoInput() override {
        std::lock_guard lock(control_);
        if (pipeline_) return std::nullopt;
        if (auto refused = checkDevice()) return refused;
        startGStreamer();
        GstElement* source = gst_element_factory_make("v4l2src", nullptr);
        GstElement* convert = gst_element_factory_make("videoconvert", nullptr);
        GstElement* sink = gst_element_factory_make("appsink", nullptr);
        if (!source || !convert || !sink) {
            for (GstElement* element : {source, convert, sink}) {
                if (element) gst_object_unref(gst_object_ref_sink(element));
            }
            return Error{"GStreamer", 0, "GStreamer lacks v4l2src, videoconvert or appsink"};
        }
        g_object_set(source, "device", device_.c_str(), nullptr);
        GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGBA", nullptr);
        gst_app_sink_set_caps(GST_APP_SINK(sink), caps);
        gst_caps_unref(caps);
        // Only the newest picture matters; a slow decoder drops the others.
        gst_app_sink_set_max_buffers(GST_APP_SINK(sink), 1);
        gst_app_sink_set_drop(GST_APP_SINK(sink), TRUE);
        g_object_set(sink, "sync", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = &DeviceSession::onSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, new std::weak_ptr<Pictures>(pictures_),
                                   +[](gpointer data) { delete static_cast<std::weak_ptr<Pictures>*>(data); });

        GstElement* pipeline = gst_pipeline_new("qr-camera");
        gst_bin_add_many(GST_BIN(pipeline), source, convert, sink, nullptr);
        if (!gst_element_link_many(source, convert, sink, nullptr)) {
            gst_object_unref(pipeline);
            return Error{"GStreamer", 0, "The camera's pipeline cannot be linked"};
        }
        // Ready opens the device, so that a busy or refusing one fails here.
        if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
            auto error = busError(pipeline).value_or(Error{"GStreamer", 0, "The camera cannot be opened"});
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
            return error;
        }
        pipeline_ = pipeline;
        return std::nullopt;
    }

    bool isRunning() const override {
        std::lock_guard lock(control_);
        if (!pipeline_) return false;
        GstState state = GST_STATE_NULL;
        gst_element_get_state(pipeline_, &state, nullptr, 0);
        return state == GST_STATE_PLAYING;
    }

    void startRunning() override {
        std::lock_guard lock(control_);
        if (!pipeline_) return;
        gst_element_set_state(pipeline_, GST_STATE_PLAYING);
        GstState state = GST_STATE_NULL;
        if (gst_element_get_state(pipeline_, &state, nullptr, kStartBound) == GST_STATE_CHANGE_FAILURE ||
            state != GST_STATE_PLAYING) {
            auto error = busError(pipeline_).value_or(Error{"GStreamer", 0, "The camera did not start"});
            logLine("Camera failed to start: " + error.text());
            gst_element_set_state(pipeline_, GST_STATE_READY);
        }
    }

    void stopRunning() override {
        std::lock_guard lock(control_);
        if (pipeline_) gst_element_set_state(pipeline_, GST_STATE_READY);
    }

private:
    // What the node itself says before GStreamer is asked.
    std::optional<Error> checkDevice() const {
        int fd = ::open(device_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            int code = errno;
            return posixError(code, "The camera " + device_.string() + " cannot be opened: " + std::strerror(code));
        }
        v4l2_capability capability{};
        bool video = ::ioctl(fd, VIDIOC_QUERYCAP, &capability) == 0;
        std::uint32_t caps = capability.capabilities & V4L2_CAP_DEVICE_CAPS ? capability.device_caps
                                                                             : capability.capabilities;
        if (!video || !(caps & V4L2_CAP_VIDEO_CAPTURE)) {
            ::close(fd);
            return posixError(ENODEV, device_.string() + " is not a video capture device");
        }
        // A device that streams for another program refuses even its own format.
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        bool busy =
            ::ioctl(fd, VIDIOC_G_FMT, &format) == 0 && ::ioctl(fd, VIDIOC_S_FMT, &format) != 0 && errno == EBUSY;
        ::close(fd);
        if (busy) return posixError(EBUSY, "The camera " + device_.string() + " is in use by another program");
        return std::nullopt;
    }

    static GstFlowReturn onSample(GstAppSink* sink, gpointer data) {
        GstSample* sample = gst_app_sink_pull_sample(sink);
        if (!sample) return GST_FLOW_OK;
        auto pictures = static_cast<std::weak_ptr<Pictures>*>(data)->lock();
        GstStructure* format = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        Frame frame;
        GstMapInfo map;
        if (pictures && format && buffer && gst_structure_get_int(format, "width", &frame.width) &&
            gst_structure_get_int(format, "height", &frame.height) && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            frame.stride = frame.width * 4;
            frame.pixels = ownBytes(g_bytes_new(map.data, map.size));
            gst_buffer_unmap(buffer, &map);
            take(pictures, std::move(frame));
        }
        gst_sample_unref(sample);
        return GST_FLOW_OK;
    }

    std::filesystem::path device_;
    mutable std::mutex control_;
    GstElement* pipeline_ = nullptr;
};

}  // namespace

QrCamera::QrCamera(std::vector<std::filesystem::path> images, std::filesystem::path device)
    : images_(std::move(images)), device_(std::move(device)) {}

std::filesystem::path QrCamera::device() const {
    if (!device_.empty()) return device_;
    std::filesystem::path lowest;
    long lowestNumber = -1;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev", error)) {
        auto name = entry.path().filename().string();
        if (!name.starts_with("video") || name.size() == 5) continue;
        char* end = nullptr;
        long number = std::strtol(name.c_str() + 5, &end, 10);
        if (*end != '\0' || number < 0) continue;
        if (lowestNumber < 0 || number < lowestNumber) {
            lowestNumber = number;
            lowest = entry.path();
        }
    }
    return lowest;
}

platform::AuthorizationStatus QrCamera::authorizationStatus() const {
    if (!images_.empty()) return platform::AuthorizationStatus::authorized;
    auto node = device();
    // Without a camera there is nothing to refuse; the screen finds out that none is there.
    if (node.empty() || ::access(node.c_str(), R_OK | W_OK) == 0 || errno == ENOENT) {
        return platform::AuthorizationStatus::authorized;
    }
    return platform::AuthorizationStatus::denied;
}

void QrCamera::requestAccess(std::function<void(bool granted)> completion) {
    if (completion) completion(authorizationStatus() == platform::AuthorizationStatus::authorized);
}

bool QrCamera::hasDefaultVideoDevice() const {
    if (!images_.empty()) return true;
    auto node = device();
    std::error_code error;
    return !node.empty() && std::filesystem::exists(node, error);
}

std::shared_ptr<platform::CaptureSession> QrCamera::makeSession() {
    if (!images_.empty()) return std::make_shared<ImageSession>(images_);
    return std::make_shared<DeviceSession>(device());
}

}  // namespace kelvane::gtk

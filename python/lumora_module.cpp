// lumora_module.cpp: lumora._lumora, the C++ half of the Python module.
//
// A thin layer: arguments are checked and arrays copied here; everything
// else is the tool's own code (options and their wording, frame choice,
// alignment, the fusion call, readers and writers, the batch's plan and its
// single run), so that Python and lumora-fuse cannot drift apart.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "align.h"
#include "deghost.h"
#include "batch.h"
#include "cancel.h"
#include "frames.h"
#include "fusion_call.h"
#include "fusion_child.h"
#include "output_file.h"
#include "run.h"

namespace py = pybind11;
using namespace lumora_fuse;

namespace {

struct Cancelled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The library keeps process-wide state, and the tool's fusion call one
// progress hook: one fusion at a time in a process.
std::mutex gFusionMutex;
double gFusionSeconds = 0;  // the last fusion's time inside the tool's call, for the overhead benchmark

// Options through the tool's own parser: its defaults, ranges and wording.
// ValueError with the tool's line for what it refuses.
Options parsedOptions(std::vector<std::string> args) {
    args.insert(args.begin(), "lumora-fuse");
    std::vector<const char *> argv;
    for (const std::string &arg : args)
        argv.push_back(arg.c_str());
    Options options;
    std::string message;
    if (parseOptions(int(argv.size()), argv.data(), options, message) != kContinue)
        throw py::value_error(message);
    return options;
}

// Frame i of a sequence: an H x W x 3 array of uint8 or uint16, never cast.
py::array frameArray(const py::handle &item, size_t i) {
    if (!py::isinstance<py::array>(item))
        throw py::type_error("frame " + std::to_string(i) + ": expected a numpy.ndarray, got " +
                             std::string(py::str(py::type::handle_of(item).attr("__name__"))));
    py::array a = py::reinterpret_borrow<py::array>(item);
    const py::dtype dt = a.dtype();
    if (!dt.is(py::dtype::of<uint8_t>()) && !dt.is(py::dtype::of<uint16_t>()) &&
        !(dt.kind() == 'u' && (dt.itemsize() == 1 || dt.itemsize() == 2) && dt.byteorder() != '>'))
        throw py::type_error("frame " + std::to_string(i) + ": dtype " + std::string(py::str(py::object(dt))) +
                             "; expected uint8 or uint16");
    if (a.ndim() != 3 || a.shape(2) != 3 || a.shape(0) < 1 || a.shape(1) < 1)
        throw py::value_error("frame " + std::to_string(i) + ": shape " +
                              std::string(py::str(py::tuple(py::cast(std::vector<py::ssize_t>(
                                  a.shape(), a.shape() + a.ndim()))))) +
                              "; expected (height, width, 3)");
    return a;
}

// A 16-bit sample reduced as the tool reduces a 16-bit PNG (libpng's exact
// scaling, round(v * 255 / 65535)).
inline unsigned char reduced(uint16_t v) { return (unsigned char)((v * 255u + 32895u) >> 16); }

// The frames copied once into the tool's images (RGB), whatever their strides.
std::vector<Image> framesOf(const py::sequence &frames, bool bgr, size_t least) {
    if (frames.size() < least)
        throw py::value_error("expected " + std::to_string(least) + " or more frames, got " +
                              std::to_string(frames.size()));
    std::vector<Image> images;
    for (size_t i = 0; i < frames.size(); ++i) {
        const py::array a = frameArray(frames[i], i);
        const int h = int(a.shape(0)), w = int(a.shape(1));
        if (i > 0 && (w != images[0].width || h != images[0].height))
            throw py::value_error("frame " + std::to_string(i) + ": " +
                                  sizeMismatch(w, h, "frame 0", images[0].width, images[0].height));
        std::string error;
        if (!fusionSizeAllowed(w, h, error))
            throw py::value_error("frame " + std::to_string(i) + ": " + error);
        Image image{w, h, std::vector<unsigned char>(size_t(w) * h * 3)};
        const bool wide = a.itemsize() == 2;
        const auto *base = static_cast<const unsigned char *>(a.data());
        const py::ssize_t sy = a.strides(0), sx = a.strides(1), sc = a.strides(2);
        if (!wide && !bgr && sc == 1 && sx == 3 && sy == 3 * py::ssize_t(w)) {  // the common case, whole
            memcpy(image.rgb.data(), base, image.rgb.size());
            images.push_back(std::move(image));
            continue;
        }
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c) {
                    const unsigned char *p = base + y * sy + x * sx + (bgr ? 2 - c : c) * sc;
                    uint16_t v16;
                    if (wide)
                        memcpy(&v16, p, 2);
                    image.rgb[(size_t(y) * w + x) * 3 + c] = wide ? reduced(v16) : *p;
                }
        images.push_back(std::move(image));
    }
    return images;
}

py::array_t<unsigned char> arrayOf(const Image &image) {
    py::array_t<unsigned char> out({py::ssize_t(image.height), py::ssize_t(image.width), py::ssize_t(3)});
    memcpy(out.mutable_data(), image.rgb.data(), image.rgb.size());
    return out;
}

// The Python side of the fusion's progress: the callable, and why it stopped.
struct Progress {
    py::object callable;
    bool declined = false;  // the callable returned False
    std::optional<py::error_already_set> error;  // raised by it, or a signal (KeyboardInterrupt)
};
Progress *gProgress = nullptr;

void onProgress(int *cancel, float amount) {
    py::gil_scoped_acquire gil;
    Progress &p = *gProgress;
    if (p.declined || p.error) {
        *cancel = 1;
        return;
    }
    try {
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
        if (!p.callable.is_none() && p.callable(amount).ptr() == Py_False)
            p.declined = true;
    } catch (py::error_already_set &e) {
        p.error = std::move(e);
    }
    if (p.declined || p.error)
        *cancel = 1;
}

py::array fuse(const py::sequence &frames, bool bgr, const std::vector<std::string> &args,
               const py::object &progress) {
    Options options = parsedOptions(args);
    std::vector<Image> images = framesOf(frames, bgr, 2);
    // Of more than three, three as the tool picks frames without EXIF.
    if (images.size() > 3) {
        std::vector<double> light;
        for (const Image &image : images)
            light.push_back(meanBrightness(image));
        std::vector<Image> three;
        for (size_t i : pickThree(light, 118))
            three.push_back(std::move(images[i]));
        images = std::move(three);
    }
    std::vector<const Image *> given, exposures;
    for (const Image &image : images)
        given.push_back(&image);
    for (int i : brightnessOrder(given))
        exposures.push_back(given[size_t(i)]);

    Loupe region = options.loupe;
    const int width = images[0].width, height = images[0].height;
    if (region.enabled) {
        const std::string problem = loupeProblem(region, width, height);
        if (!problem.empty())
            throw py::value_error(problem);
    } else {
        region = Loupe{false, 0, 0, width, height};
    }
    FusionRun run = fusionRunOf(options, exposures, region);
    run.progress = onProgress;

    Progress state{progress, false, std::nullopt};
    SharedBuffer result;
    std::string error;
    FusionResult fused;
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(gFusionMutex);
        gProgress = &state;
        const auto start = std::chrono::steady_clock::now();
        fused = fuseHere(run, result, error);
        gFusionSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        gProgress = nullptr;
    }
    if (state.error)
        throw std::move(*state.error);
    if (state.declined)
        throw Cancelled("the fusion was cancelled by the progress callback");
    if (fused != FusionResult::Done)
        throw std::runtime_error(error);

    const std::vector<py::ssize_t> shape = {region.height, region.width, 3};
    py::array out = options.depth == 16 ? py::array(py::dtype::of<uint16_t>(), shape)
                                        : py::array(py::dtype::of<uint8_t>(), shape);
    auto *to = static_cast<unsigned char *>(out.mutable_data());
    const size_t sample = size_t(options.depth / 8), pixels = size_t(region.width) * region.height;
    if (!bgr)
        memcpy(to, result.data, pixels * 3 * sample);
    for (size_t p = 0; bgr && p < pixels; ++p)
        for (size_t c = 0; c < 3; ++c)
            memcpy(to + (p * 3 + c) * sample, result.data + (p * 3 + 2 - c) * sample, sample);
    return out;
}

// Two or more non-empty frames, and the index of the middle one by brightness.
std::vector<Image> framesToRegister(const py::sequence &frames, int &middle) {
    std::vector<Image> images = framesOf(frames, false, 2);
    std::vector<const Image *> given;
    for (const Image &image : images) {
        if (image.rgb.empty())
            throw py::value_error("empty frame");
        given.push_back(&image);
    }
    middle = brightnessOrder(given)[images.size() / 2];
    return images;
}

py::tuple align(const py::sequence &frames, int threads) {
    int reference = 0;
    std::vector<Image> images = framesToRegister(frames, reference);
    AlignSummary summary;
    std::string error;
    bool aligned;
    {
        py::gil_scoped_release release;
        if (threads > 0)
            setAlignmentThreads(threads);
        aligned = alignFrames(images, reference, summary, error);
    }
    if (!aligned)
        throw py::value_error((summary.failed >= 0 ? "frame " + std::to_string(summary.failed) + ": " : "") +
                              "cannot align to frame " + std::to_string(reference) + ": " + error);
    py::list out;
    for (const Image &image : images)
        out.append(arrayOf(image));
    py::dict info;
    info["reference"] = reference;
    info["transforms"] = summary.transforms;
    info["crop"] = py::make_tuple(summary.crop.x, summary.crop.y, summary.crop.width, summary.crop.height);
    info["largest_shift"] = summary.largestShift;
    info["largest_angle"] = summary.largestAngle;
    return py::make_tuple(out, info);
}

py::tuple deghost(const py::sequence &frames, const py::object &reference, int threads) {
    int middle = 0;
    std::vector<Image> images = framesToRegister(frames, middle);
    const int count = int(images.size());
    const int chosen = reference.is_none() ? middle : py::cast<int>(reference);
    if (chosen < 0 || chosen >= count)
        throw py::value_error("reference: " + std::to_string(chosen) + " is not one of the " + std::to_string(count) +
                              " frames");
    DeghostSummary summary;
    {
        py::gil_scoped_release release;
        if (threads > 0)
            setAlignmentThreads(threads);
        deghostFrames(images, chosen, summary);
    }
    py::list out, masks;
    for (int i = 0; i < count; ++i) {
        out.append(arrayOf(images[i]));
        py::array_t<unsigned char> mask({summary.height, summary.width});
        if (summary.masks[i].empty())
            std::fill_n(mask.mutable_data(), mask.size(), 0);
        else
            std::copy(summary.masks[i].begin(), summary.masks[i].end(), mask.mutable_data());
        masks.append(mask);
    }
    py::dict info;
    info["reference"] = chosen;
    info["replaced"] = summary.replaced;
    info["masks"] = masks;
    return py::make_tuple(out, info);
}

py::array_t<unsigned char> readFile(const std::string &path) {
    Image image;
    std::string error;
    bool ok;
    {
        py::gil_scoped_release release;
        ok = readImage(path, image, error);
    }
    if (!ok)
        throw py::value_error(path + ": " + error);
    return arrayOf(image);
}

void writeFile(const std::string &path, const py::array &array, const std::optional<std::string> &metadataFrom,
           int quality) {
    const py::array a = frameArray(array, 0);
    const int depth = a.itemsize() == 2 ? 16 : 8;
    const FileFormat format = formatFromExtension(path);
    if (format == FileFormat::Unknown)
        throw py::value_error(path + ": unknown output format (use .jpg, .jpeg, .png, .tif or .tiff)");
    if (format == FileFormat::Jpeg && depth == 16)
        throw py::value_error(path + ": JPEG holds 8-bit samples only; use .png or .tif for uint16");
    if (quality < 1 || quality > 100)
        throw py::value_error("quality: " + std::to_string(quality) + " is not valid (1 to 100)");
    const py::array c = py::array::ensure(a, py::array::c_style);  // the same dtype, contiguous
    const OutputPicture picture{format, int(a.shape(1)), int(a.shape(0)), depth,
                                static_cast<const unsigned char *>(c.data()), quality};
    std::string error;
    bool ok;
    {
        py::gil_scoped_release release;
        OutputFile output(path);
        ok = output.create(error) && output.write(picture, error);
        if (ok && metadataFrom) {
            switch (output.addMetadata(picture, *metadataFrom, error)) {
            case OutputFile::Metadata::Copied: break;
            case OutputFile::Metadata::WriteFailed: ok = false; break;
            case OutputFile::Metadata::NotCopied: error = "metadata of " + *metadataFrom + " not copied: " + error;
                                                  ok = false;
            }
        }
        ok = ok && output.commit(error);
    }
    if (!ok)
        throw py::value_error(path + ": cannot write the output: " + error);
}

// The batch's plan from its command line: the brackets as the report gives
// them, and the indices of those to fuse; its status (kContinue, 1 or 2).
py::tuple planBatchOf(const std::vector<std::string> &args) {
    std::vector<std::string> all = {"--batch"};
    all.insert(all.end(), args.begin(), args.end());
    const Options options = parsedOptions(all);
    std::vector<BatchBracket> brackets;
    std::vector<size_t> todo;
    const int status = planBatch(options, brackets, todo);
    py::list out;
    for (const BatchBracket &b : brackets) {
        py::list inputs;
        for (const FrameInfo &f : b.frames)
            inputs.append(f.path);
        py::dict d;
        d["inputs"] = inputs;
        d["output"] = b.output;
        d["status"] = b.status;
        d["error"] = b.error;
        out.append(d);
    }
    return py::make_tuple(status, out, todo);
}

// One bracket of a batch, fused in this process by the tool's single run
// with the batch's options: its outcome.
py::dict fuseBracketOf(const std::vector<std::string> &args, const std::vector<std::string> &inputs,
                       const std::string &output) {
    std::vector<std::string> all = {"--batch"};
    all.insert(all.end(), args.begin(), args.end());
    Options options = parsedOptions(all);
    options.batch = false;
    options.output = output;
    options.outputFormat = formatFromExtension(output);
    FrameChoice choice;
    std::string error;
    RunOutcome outcome;
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(gFusionMutex);
        const int chosen = chooseFrames(inputs, {}, choice, error);
        if (chosen == kContinue) {
            options.images = choice.paths;
            options.bracket = choice.bracket;
            outcome = fuseBracket(options, {}, true);
        } else {
            outcome.status = chosen;
            outcome.lastLine = error;
        }
    }
    py::dict d;
    d["status"] = outcome.status;
    d["line"] = outcome.lastLine;
    d["alignment"] = outcome.alignment;
    d["deghost"] = outcome.deghost;
    d["frames"] = choice.paths;
    return d;
}

// The JSON report of brackets given as the plan's dicts (with "frames",
// "alignment" and "seconds" added by the run); written where options say.
int finishBatchOf(const std::vector<std::string> &args, const py::list &brackets, int status) {
    std::vector<std::string> all = {"--batch"};
    all.insert(all.end(), args.begin(), args.end());
    const Options options = parsedOptions(all);
    std::vector<BatchBracket> out;
    for (const py::handle &h : brackets) {
        const py::dict d = py::reinterpret_borrow<py::dict>(h);
        BatchBracket b;
        for (const py::handle &path : d["inputs"]) {
            b.frames.emplace_back();
            b.frames.back().path = py::cast<std::string>(path);
        }
        b.output = py::cast<std::string>(d["output"]);
        b.status = py::cast<std::string>(d["status"]);
        b.error = py::cast<std::string>(d["error"]);
        if (d.contains("frames"))
            b.chosen = py::cast<std::vector<std::string>>(d["frames"]);
        if (d.contains("alignment"))
            b.alignment = py::cast<std::string>(d["alignment"]);
        if (d.contains("deghost"))
            b.deghost = py::cast<std::string>(d["deghost"]);
        if (d.contains("seconds"))
            b.seconds = py::cast<double>(d["seconds"]);
        out.push_back(std::move(b));
    }
    return finishBatch(options, out, status);
}

}  // namespace

PYBIND11_MODULE(_lumora, m) {
    m.doc() = "The C++ half of lumora: see lumora/__init__.py.";
    py::register_exception<Cancelled>(m, "Cancelled");
    m.attr("__version__") = LUMORA_VERSION;
    m.def("fuse", &fuse, py::arg("frames"), py::arg("bgr"), py::arg("args"), py::arg("progress"));
    m.def("align", &align, py::arg("frames"), py::arg("threads"));
    m.def("deghost", &deghost, py::arg("frames"), py::arg("reference"), py::arg("threads"));
    m.def("read", &readFile, py::arg("path"));
    m.def("write", &writeFile, py::arg("path"), py::arg("array"), py::arg("metadata_from"), py::arg("quality"));
    m.def("plan_batch", &planBatchOf, py::arg("args"));
    m.def("fuse_bracket", &fuseBracketOf, py::arg("args"), py::arg("inputs"), py::arg("output"));
    m.def("last_fusion_seconds", [] { return gFusionSeconds; });
    m.def("finish_batch", &finishBatchOf, py::arg("args"), py::arg("brackets"), py::arg("status"));
}

#include "ZqLauncherChanges.h"

#include "SxException.h"
#include "ZqFold.h"
#include "ZqHex.h"
#include "ZqLauncherFiles.h"
#include "ZqRecordFile.h"

#include <algorithm>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqLauncherChanges";
constexpr int64 VERSION = 2;
constexpr auto ARRAY = SxParserAst::Array;
constexpr auto OBJECT = SxParserAst::Object;
/// In front of a path that JSON can't hold, in hex digits.
constexpr const char* BYTES = "bytes:";
/// Every folder of the launcher, one below the other, and that of what is saved.
constexpr const char* OWN_FOLDERS[] = {"C:/ProgramData/Epic",        "C:/ProgramData/Epic/EpicGamesLauncher",
                                       ZqLauncherFiles::EPIC_DATA,   ZqLauncherFiles::EPIC_MANIFESTS,
                                       ZqLauncherFiles::EPIC_STORES, "C:/ProgramData/VOLM",
                                       ZqLauncherFiles::EPIC_BACKUP};

SxString pathToText(const SxString& path) {
    if (path.validUtf8() == path) return path;
    return BYTES + zqHex(path.str());
}

SxString textToPath(const SxString& text) {
    return text.startsWith(BYTES) ? SxString(zqBytesOfHex(text.right(BYTES))) : text;
}

void put(SxSymbol object, const char* key, const SxList<SxString>& texts) {
    if (texts.isEmpty()) return;
    SxSymbol list = object.append(key, ARRAY);
    for (const SxString& text : texts)
        list.append(text);
}

void putState(SxSymbol entry, const char* key, const ZqRegistry::State& state) {
    if (!state.isThere) return;
    SxSymbol data = entry.append(key, OBJECT);
    data.append("type", int64{state.type});
    data.append("bytes", state.bytes);
}

void putRegistry(SxSymbol object, const ZqLauncherChanges::Image& image) {
    if (image.former.isEmpty()) return;
    SxSymbol list = object.append("registry", ARRAY);
    auto written = image.written.begin();
    for (const ZqRegistry::State& former : image.former) {
        SxSymbol entry = list.append(OBJECT);
        entry.append("key", former.key);
        entry.append("value", former.value);
        entry.append("made", former.nMade);
        putState(entry, "former", former);
        putState(entry, "written", *written++);
    }
}

ZqRegistry::State getState(const SxSymbol& entry, const char* key) {
    ZqRegistry::State state;
    state.key = entry.getElem("key").toString();
    state.value = entry.getElem("value").toString();
    const SxSymbol data = entry.getElem(key, false);
    state.isThere = data.isValid();
    if (state.isThere) {
        state.type = static_cast<uint32>(data.getElem("type").toInt());
        state.bytes = data.getElem("bytes").toString();
        zqBytesOfHex(state.bytes); // raises here, not first at the undo
    }
    return state;
}

void requireName(const SxString& name, const char* what) {
    if (name.isEmpty()) throw SxException(SxString("The name of ") + what + " is empty", UNIT, __LINE__);
    ZqLauncherFiles::requirePlain(name, SxString("The name of ") + what, true);
}

/// Of a store folder that stood there before, only the part of its manifests was made.
constexpr std::string_view STORE_PART = "/.egstore";

void getNames(const SxSymbol& object, const char* key, SxList<SxString>* names) {
    ZqRecordFile::get(object, key, names);
    for (const SxString& name : *names) {
        std::string text = name.str();
        if (SxString(key) == "stores" && text.ends_with(STORE_PART))
            text.resize(text.size() - STORE_PART.size());
        requireName(text, key);
    }
}

ZqLauncherChanges::Image getImage(const SxSymbol& object) {
    ZqLauncherChanges::Image image;
    image.path = textToPath(object.getElem("image").toString());
    const SxSymbol aside = object.getElem("manifestsSaved", false);
    image.setsAside = aside.isValid() && aside.toBool();
    getNames(object, "manifests", &image.items);
    getNames(object, "stores", &image.stores);
    getNames(object, "titles", &image.titles);
    ZqRecordFile::get(object, "libraries", &image.libraries);
    const SxSymbol registry = object.getElem("registry", false);
    if (!registry.isValid()) return image;
    for (const SxSymbol& entry : registry.toList()) {
        image.former.append(getState(entry, "former"));
        image.former.last().nMade = entry.getElem("made").toInt();
        image.written.append(getState(entry, "written"));
    }
    return image;
}

} // namespace

const ZqLauncherChanges::Image* ZqLauncherChanges::find(const SxString& path) const {
    const auto found =
        std::find_if(images.begin(), images.end(), [&](const Image& image) { return image.path == path; });
    return found == images.end() ? nullptr : &*found;
}

ZqLauncherChanges::Image& ZqLauncherChanges::of(const SxString& path) {
    for (Image& image : images) {
        if (image.path == path) return image;
    }
    Image image;
    image.path = path;
    images.append(image);
    return images.last();
}

void ZqLauncherChanges::tidy() {
    SxList<Image> left;
    for (const Image& image : images) {
        if (!image.isEmpty()) left.append(image);
    }
    images = left;
    if (!hasLibraries()) librariesDigests.removeAll();
}

bool ZqLauncherChanges::hasLibraries() const {
    return std::any_of(images.begin(), images.end(),
                       [](const Image& image) { return !image.libraries.isEmpty(); });
}

bool ZqLauncherChanges::hasEpic() const {
    return std::any_of(images.begin(), images.end(), [](const Image& image) { return image.hasEpic(); });
}

bool ZqLauncherChanges::isNoted(SxList<SxString> Image::*list, const SxString& name,
                                const SxString* except) const {
    const std::u16string folded = zqFold(zqUtf16(name));
    return std::any_of(images.begin(), images.end(), [&](const Image& image) {
        return !(except && image.path == *except) &&
               std::any_of((image.*list).begin(), (image.*list).end(),
                           [&](const SxString& other) { return zqFold(zqUtf16(other)) == folded; });
    });
}

void ZqLauncherChanges::readText(const SxString& text, const SxString& textName) {
    *this = ZqLauncherChanges();
    const SxSymbol root = ZqRecordFile::parse(text, textName, "zqlaunchers-schema.json");
    for (const SxSymbol& object : root.getElem("images").toList())
        images.append(getImage(object));
    ZqRecordFile::get(root, "folders", &folders);
    for (const SxString& folder : folders) {
        const auto isOwn = [&](const char* own) { return folder == own; };
        if (std::none_of(std::begin(OWN_FOLDERS), std::end(OWN_FOLDERS), isOwn))
            throw SxException("'" + folder.makeVisible() + "' is no folder of a launcher", UNIT, __LINE__);
    }
    const SxSymbol returns = root.getElem("setReturns", false);
    setReturns = returns.isValid() && returns.toBool();
    ZqRecordFile::get(root, "librariesDigests", &librariesDigests);
}

SxString ZqLauncherChanges::toText() const {
    SxSymbol root;
    root.setType(OBJECT);
    root.append("version", VERSION);
    SxSymbol list = root.append("images", ARRAY);
    for (const Image& image : images) {
        SxSymbol object = list.append(OBJECT);
        object.append("image", pathToText(image.path));
        putRegistry(object, image);
        if (image.setsAside) object.append("manifestsSaved", true);
        put(object, "manifests", image.items);
        put(object, "stores", image.stores);
        put(object, "titles", image.titles);
        put(object, "libraries", image.libraries);
    }
    put(root, "folders", folders);
    if (setReturns) root.append("setReturns", true);
    put(root, "librariesDigests", librariesDigests);
    return root.toJson(4) + "\n";
}

// The dialog's template and its icon, as they lie in the module's resources.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "provider_module.h"

namespace NV::test {

namespace {

// RT_DIALOG and RT_GROUP_ICON, which are narrow without UNICODE.
const LPCWSTR dialogType = MAKEINTRESOURCEW(5);
const LPCWSTR iconGroupType = MAKEINTRESOURCEW(14);

struct LibraryFreer {
    void operator()(HMODULE library) const { FreeLibrary(library); }
};
using Library = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryFreer>;

// The module's resources; none of its code runs.
Library loadResources()
{
    return Library(
        LoadLibraryExW(ProviderModule::defaultPath().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
}

struct ItemText {
    std::wstring text;
    int ordinal = -1;  // of a resource or a built-in class, in the place of a text

    bool operator==(const ItemText&) const = default;
};

struct Item {
    uint32_t helpId = 0;
    uint32_t exStyle = 0;
    uint32_t style = 0;
    int16_t x = 0;
    int16_t y = 0;
    int16_t width = 0;
    int16_t height = 0;
    uint32_t id = 0;
    std::wstring className;
    ItemText title;
};

struct Template {
    uint16_t version = 0;
    uint16_t signature = 0;
    uint32_t style = 0;
    int16_t x = 0;
    int16_t y = 0;
    int16_t width = 0;
    int16_t height = 0;
    std::wstring caption;
    uint16_t pointSize = 0;
    std::wstring font;
    std::vector<Item> items;
};

// Reads the extended dialog template of the resource format, field by field.
class TemplateReader {
public:
    TemplateReader(const void* data, size_t size)
        : data_(static_cast<const char*>(data)), size_(size)
    {
    }

    Template read()
    {
        Template result;
        result.version = number<uint16_t>();
        result.signature = number<uint16_t>();
        number<uint32_t>();  // help identifier
        number<uint32_t>();  // extended style
        result.style = number<uint32_t>();
        const auto count = number<uint16_t>();
        result.x = number<int16_t>();
        result.y = number<int16_t>();
        result.width = number<int16_t>();
        result.height = number<int16_t>();
        text();  // menu
        text();  // class
        result.caption = text().text;
        result.pointSize = number<uint16_t>();
        number<uint16_t>();  // weight
        number<uint16_t>();  // italic and character set
        result.font = text().text;
        for (int i = 0; i < count; ++i)
            result.items.push_back(item());
        return result;
    }

private:
    template <typename Number>
    Number number()
    {
        Number value{};
        if (position_ + sizeof value > size_)
            throw std::runtime_error("the dialog template is cut short");
        std::memcpy(&value, data_ + position_, sizeof value);
        position_ += sizeof value;
        return value;
    }

    ItemText text()
    {
        ItemText result;
        auto unit = number<uint16_t>();
        if (unit == 0xFFFF) {
            result.ordinal = number<uint16_t>();
            return result;
        }
        for (; unit != 0; unit = number<uint16_t>())
            result.text.push_back(static_cast<wchar_t>(unit));
        return result;
    }

    Item item()
    {
        position_ = (position_ + 3) / 4 * 4;
        Item result;
        result.helpId = number<uint32_t>();
        result.exStyle = number<uint32_t>();
        result.style = number<uint32_t>();
        result.x = number<int16_t>();
        result.y = number<int16_t>();
        result.width = number<int16_t>();
        result.height = number<int16_t>();
        result.id = number<uint32_t>();
        result.className = className(text());
        result.title = text();
        position_ += number<uint16_t>();  // creation data
        return result;
    }

    // A built-in class may stand there by its number or by its name in any case.
    static std::wstring className(const ItemText& text)
    {
        switch (text.ordinal) {
        case 0x80:
            return L"BUTTON";
        case 0x81:
            return L"EDIT";
        case 0x82:
            return L"STATIC";
        default: {
            std::wstring name = text.text;
            CharUpperBuffW(name.data(), static_cast<DWORD>(name.size()));
            return name;
        }
        }
    }

    const char* data_;
    size_t size_;
    size_t position_ = 0;
};

Template readTemplate(HMODULE library)
{
    HRSRC resource = FindResourceW(library, MAKEINTRESOURCEW(101), dialogType);
    if (resource == nullptr)
        throw std::runtime_error("the module has no dialog 101");
    return TemplateReader(LockResource(LoadResource(library, resource)),
                          SizeofResource(library, resource))
        .read();
}

// A row of the expected template. Styles that every visible control has are left out.
struct ExpectedItem {
    uint32_t id = 0;
    const wchar_t* className = nullptr;
    uint32_t style = 0;
    int16_t x = 0, y = 0, width = 0, height = 0;
    ItemText title;
};

constexpr wchar_t buttonClass[] = L"BUTTON";
constexpr wchar_t editClass[] = L"EDIT";
constexpr wchar_t staticClass[] = L"STATIC";
constexpr uint32_t noId = 0xFFFFFFFF;

const ExpectedItem expectedItems[] = {
    {1002, staticClass, SS_ICON | SS_CENTERIMAGE | SS_REALSIZEIMAGE, 11, 10, 20, 20, {L"", 102}},
    {noId,
     staticClass,
     WS_GROUP,
     45,
     16,
     204,
     8,
     {L"Enter the PIN for Norvanta Software KeyStore"}},
    {noId, staticClass, WS_GROUP, 10, 39, 37, 8, {L"Token PIN"}},
    {1001, editClass, WS_BORDER | WS_TABSTOP | ES_PASSWORD | ES_AUTOHSCROLL, 50, 36, 205, 15, {}},
    {1008, buttonClass, WS_TABSTOP | BS_FLAT, 256, 36, 26, 15, {L"Show"}},
    {IDCANCEL, buttonClass, WS_TABSTOP, 175, 61, 50, 14, {L"Cancel"}},
    {IDOK, buttonClass, WS_TABSTOP | BS_DEFPUSHBUTTON, 232, 61, 50, 14, {L"OK"}},
};

TEST(DialogTemplate, HasItsFrameCaptionAndFont)
{
    const Library library = loadResources();
    const Template dialog = readTemplate(library.get());
    EXPECT_EQ(dialog.version, 1);
    EXPECT_EQ(dialog.signature, 0xFFFF);
    EXPECT_EQ(dialog.style, WS_POPUP | WS_CAPTION | DS_MODALFRAME | DS_CENTER | DS_SHELLFONT);
    EXPECT_EQ(dialog.x, 0);
    EXPECT_EQ(dialog.y, 0);
    EXPECT_EQ(dialog.width, 289);
    EXPECT_EQ(dialog.height, 82);
    EXPECT_EQ(dialog.caption, L"Norvanta Software KeyStore Provider Logon");
    EXPECT_EQ(dialog.pointSize, 8);
    EXPECT_EQ(dialog.font, L"MS Shell Dlg");
}

TEST(DialogTemplate, HasItsControls)
{
    const Library library = loadResources();
    const Template dialog = readTemplate(library.get());
    ASSERT_EQ(dialog.items.size(), std::size(expectedItems));
    for (size_t i = 0; i < dialog.items.size(); ++i) {
        const Item& item = dialog.items[i];
        const ExpectedItem& expected = expectedItems[i];
        EXPECT_EQ(item.id, expected.id) << i;
        EXPECT_EQ(item.className, expected.className) << i;
        EXPECT_EQ(item.style, expected.style | WS_CHILD | WS_VISIBLE) << i;
        EXPECT_EQ(item.exStyle, 0u) << i;
        EXPECT_EQ(item.x, expected.x) << i;
        EXPECT_EQ(item.y, expected.y) << i;
        EXPECT_EQ(item.width, expected.width) << i;
        EXPECT_EQ(item.height, expected.height) << i;
        EXPECT_EQ(item.title, expected.title) << i;
    }
}

TEST(DialogTemplate, TheIconHas32By32Pixels)
{
    const Library library = loadResources();
    HRSRC resource = FindResourceW(library.get(), MAKEINTRESOURCEW(102), iconGroupType);
    ASSERT_NE(resource, nullptr);
    const auto* directory =
        static_cast<const unsigned char*>(LockResource(LoadResource(library.get(), resource)));
    // Reserved, type and count, two bytes each; then rows of 14 bytes that begin with the size.
    ASSERT_GE(SizeofResource(library.get(), resource), 6u + 14u);
    EXPECT_EQ(directory[2], 1);
    bool found = false;
    for (size_t i = 0; i < directory[4]; ++i) {
        const unsigned char* row = directory + 6 + 14 * i;
        found = found || (row[0] == 32 && row[1] == 32);
    }
    EXPECT_TRUE(found);
}

}  // namespace

}  // namespace NV::test

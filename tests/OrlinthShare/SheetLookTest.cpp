#include "OrlinthShare/SheetLook.h"

#include "OrlinthShare/DesktopLook.h"
#include "OrlinthShare/FileThumbnail.h"
#include "fakes/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <QImage>

namespace orlinth::share {
namespace {

QImage drawn(Symbol symbol) {
    QImage image(48, 48, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    paintSymbol(painter, symbol, image.rect(), Qt::black);
    painter.end();
    return image;
}

TEST(SheetColors, CanBeReadInLightAndDarkWithAnyAccent) {
    for (const bool dark : {false, true}) {
        for (const char* const accent :
             {"", "#308cc6", "#e5a50a", "#ffffff", "#000000", "#ff7800", "#26a269", "#9141ac"}) {
            QPalette palette = sheetPalette(dark);
            if (*accent != '\0') {
                palette.setColor(QPalette::Highlight, QColor(accent));
            }
            const SheetColors colors = SheetColors::of(palette);
            SCOPED_TRACE(std::string(dark ? "dark " : "light ") + accent);
            EXPECT_EQ(colors.isDark, dark);
            EXPECT_GE(contrastRatio(colors.text, colors.window), 7);
            EXPECT_GE(contrastRatio(colors.text, colors.card), 7);
            EXPECT_GE(contrastRatio(colors.text, colors.selectedCard), 7);
            EXPECT_GE(contrastRatio(colors.secondaryText, colors.window), 4.5);
            EXPECT_GE(contrastRatio(colors.secondaryText, colors.selectedCard), 4.5);
            EXPECT_GE(contrastRatio(colors.onAccent, colors.accent), 4.5);
            EXPECT_GE(contrastRatio(colors.accentMark, colors.window), 3);
            EXPECT_GE(contrastRatio(colors.accentMark, colors.selectedCard), 3);
            EXPECT_GE(contrastRatio(colors.text, colors.control), 7);
            EXPECT_GE(contrastRatio(colors.warning, colors.window), 3);
        }
    }
}

TEST(SheetColors, FollowTheAccentOfThePalette) {
    QPalette palette = sheetPalette(false);
    palette.setColor(QPalette::Highlight, QColor("#813d9c"));
    EXPECT_EQ(SheetColors::of(palette).accent, QColor("#813d9c"));
}

TEST(ContrastRatio, IsThatOfTheAccessibilityGuidelines) {
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::black, Qt::white), 21);
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::white, Qt::black), 21);
    EXPECT_DOUBLE_EQ(contrastRatio(Qt::red, Qt::red), 1);
    EXPECT_NEAR(contrastRatio(QColor("#777777"), Qt::white), 4.48, 0.005); // the well-known grey that just fails
}

TEST(Symbol, OnAndOffCanBeToldApart) {
    const Symbol all[] = {Symbol::phone,      Symbol::checkCircleFilled, Symbol::circle,
                          Symbol::radioWaves, Symbol::document,          Symbol::warning};
    for (const Symbol one : all) {
        for (const Symbol other : all) {
            EXPECT_EQ(drawn(one) == drawn(other), one == other);
        }
        for (int i = 0; i < 48; ++i) {
            EXPECT_EQ(qAlpha(drawn(one).pixel(0, i)), 0) << "nothing touches the edge";
            EXPECT_EQ(qAlpha(drawn(one).pixel(i, 47)), 0);
        }
    }
}

TEST(OneLine, LeavesNothingThatBreaksOrTurnsTheLine) {
    EXPECT_EQ(oneLine("a\nb\t c\r\u2028d\x01").toStdString(), "a b c d");
    EXPECT_EQ(oneLine("safe\u202Egpj.exe\u202C \u2066x\u2069").toStdString(), "safegpj.exe x");
    EXPECT_EQ(oneLine("\xff\xfe").toStdString(), "\uFFFD\uFFFD");
    EXPECT_EQ(oneLine("שלום עולם").toStdString(), "שלום עולם");
    EXPECT_EQ(oneLine("👩‍👩‍👧 é").toStdString(), "👩‍👩‍👧 é");
    EXPECT_EQ(oneLine("").toStdString(), "");
}

TEST(PaintLine, DrawsNothingOutsideItsRectangle) {
    std::string tower = "a";
    for (int i = 0; i < 40; ++i) {
        tower += "\u0301\u0323";
    }
    std::string families;
    for (int i = 0; i < 6; ++i) {
        families += "👩‍👩‍👧";
    }
    for (const std::string& text : {tower, std::string(300, 'W'), std::string("שלום עולם שלום עולם שלום"), families}) {
        QImage image(120, 60, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::white);
        QPainter painter(&image);
        painter.setFont(sheetFont(14));
        paintLine(painter, QRectF(20, 20, 80, 20), oneLine(text), Qt::ElideRight);
        painter.end();
        int inside = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const bool isInk = image.pixel(x, y) != qRgb(255, 255, 255);
                const bool isInside = x >= 20 && x < 100 && y >= 20 && y < 40;
                EXPECT_FALSE(isInk && !isInside) << text << " at " << x << ", " << y;
                inside += isInk && isInside ? 1 : 0;
            }
        }
        EXPECT_GT(inside, 0) << text;
    }
}

TEST(PaintLine, SaysWhetherItCutTheText) {
    QImage image(200, 30, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setFont(sheetFont(14));
    EXPECT_FALSE(paintLine(painter, image.rect(), QStringLiteral("Pixel-8"), Qt::ElideRight));
    EXPECT_TRUE(paintLine(painter, image.rect(), QString(100, u'x'), Qt::ElideMiddle));
    EXPECT_FALSE(isCut(painter.font(), QStringLiteral("Pixel-8"), Qt::ElideRight, 200));
    EXPECT_TRUE(isCut(painter.font(), QString(100, u'x'), Qt::ElideRight, 200));
}

TEST(PlainToolTip, ShowsMarkupAsItIs) {
    EXPECT_EQ(plainToolTip(QStringLiteral("<b>a</b> & b")).toStdString(), "<qt>&lt;b&gt;a&lt;/b&gt; &amp; b</qt>");
}

TEST(ColorScheme, HasTwoNames) {
    EXPECT_EQ(colorSchemeNamed(QStringLiteral("light")), ColorScheme::light);
    EXPECT_EQ(colorSchemeNamed(QStringLiteral("dark")), ColorScheme::dark);
    EXPECT_EQ(colorSchemeNamed(QStringLiteral("Dark")), std::nullopt);
    EXPECT_EQ(colorSchemeNamed({}), std::nullopt);
}

TEST(FileThumbnail, OfAPictureIsThePictureCutToTheFrame) {
    const fakes::TemporaryFolder folder;
    QImage wide(400, 100, QImage::Format_RGB32);
    wide.fill(Qt::red);
    ASSERT_TRUE(wide.save(QString::fromStdString((folder / "wide.png").string())));
    const FileLook look = lookOfFile(folder / "wide.png", {30, 34}, 2);
    EXPECT_EQ(look.picture.size(), QSize(60, 68));
    EXPECT_EQ(QColor(look.picture.pixel(30, 34)), QColor(Qt::red));
    const QPixmap shown = pictureOf(look, {30, 34}, 2, sheetPalette(false));
    EXPECT_EQ(shown.size(), QSize(60, 68));
    EXPECT_EQ(shown.devicePixelRatio(), 2);
    EXPECT_EQ(shown.toImage().pixelColor(30, 34), QColor(Qt::red));
    EXPECT_EQ(shown.toImage().pixelColor(0, 0).alpha(), 0) << "its corners are round";
}

TEST(FileThumbnail, OfALineOfPixelsIsItsMiddle) {
    // grown to the frame's other side it would have thousands of millions of pixels
    const fakes::TemporaryFolder folder;
    for (const QSize& size : {QSize(1, 500'000), QSize(500'000, 1)}) {
        QImage line(size, QImage::Format_RGB32);
        line.fill(Qt::blue);
        ASSERT_TRUE(line.save(QString::fromStdString((folder / "line.png").string())));
        const FileLook look = lookOfFile(folder / "line.png", {30, 34}, 2);
        EXPECT_EQ(look.picture.size(), QSize(60, 68));
        EXPECT_EQ(QColor(look.picture.pixel(30, 34)), QColor(Qt::blue));
    }
}

TEST(FileThumbnail, OfEverythingElseIsTheIconOfItsType) {
    const fakes::TemporaryFolder folder;
    fakes::writeText(folder / "a.pdf", "%PDF-1.7");
    fakes::writeText(folder / "broken.png", "no picture at all");
    fakes::writeText(folder / "drawing.svg", "<svg xmlns='http://www.w3.org/2000/svg'/>");
    EXPECT_EQ(lookOfFile(folder / "a.pdf", {30, 34}, 1).iconName.toStdString(), "application-pdf");
    for (const char* const name : {"a.pdf", "broken.png", "drawing.svg", "not-there.png", "README"}) {
        const FileLook look = lookOfFile(folder / name, {30, 34}, 1);
        EXPECT_TRUE(look.picture.isNull()) << name;
        EXPECT_FALSE(look.iconName.isEmpty()) << name;
        const QImage shown = pictureOf(look, {30, 34}, 1, sheetPalette(true)).toImage();
        EXPECT_EQ(shown.size(), QSize(30, 34));
        int ink = 0;
        for (int y = 0; y < shown.height(); ++y) {
            for (int x = 0; x < shown.width(); ++x) {
                ink += qAlpha(shown.pixel(x, y)) > 128 ? 1 : 0;
            }
        }
        EXPECT_GT(ink, 20) << name;
    }
}

} // namespace
} // namespace orlinth::share

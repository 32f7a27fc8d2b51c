// A page's text as it is searched: its content and the text of its
// annotations (text boxes, form fields) in reading order, as one plain
// string in which ligatures are spelt out, runs of white space are one space,
// accents are composed and a word hyphenated at the end of a line is one
// word again. Matching is exact under the options given, with any number of
// matches per page. Read on a worker thread (PdfPageRecording::recordText),
// it is a plain value any thread may use.
#pragma once

#include <QPointF>
#include <QRectF>
#include <QString>

#include <array>
#include <vector>

struct PdfSearchOptions {
    bool matchCase = false;
    bool wholeWords = false;
};

class PdfSearchText {
public:
    // Where a match lies in text().
    struct Match {
        int from = 0;
        int to = 0;
        bool operator==(const Match &) const = default;
    };
    // Four corners in page space (points, y up): upper left, upper right,
    // lower right, lower left of the text as it runs, so a rotated line
    // gives a turned quad.
    using Quad = std::array<QPointF, 4>;
    // A match in words around it, on one line.
    struct Context {
        QString text;
        int hitFrom = 0;
        int hitLength = 0;
    };

    // A query as it is matched: accents composed, ligatures spelt out, white
    // space as single spaces, trimmed. Empty when nothing is left to find.
    static QString searchable(const QString &query);

    // The matches of a searchable query, in reading order, none overlapping.
    // A hyphen at a line end that joined a word matches a hyphen of the
    // query, or nothing; "'" and '"' match their typographic forms.
    std::vector<Match> find(const QString &query, PdfSearchOptions options) const;
    // A line of context: the match with up to `around` characters of whole
    // words on each side.
    Context context(Match match, int around = 40) const;

    // Whether the boxes of the characters were read; quads() needs them.
    bool hasBoxes() const { return !boxes_.empty(); }
    // The quads a match covers, one per line it spans; none without boxes.
    std::vector<Quad> quads(Match match) const;
    // The rectangle around quads.
    static QRectF bounds(const std::vector<Quad> &quads);
    // The text alone, as a search index keeps it.
    PdfSearchText withoutBoxes() const;
    // Memory held, in bytes.
    qint64 bytes() const;

    const QString &text() const { return text_; }
    bool isEmpty() const { return text_.isEmpty(); }

private:
    friend class PdfSearchTextBuilder;
    struct Box {
        Quad quad;
        int line = -1; // -1: a space put between lines, drawn nowhere
    };

    QString text_;
    // One per UTF-16 unit of text_, or none.
    std::vector<Box> boxes_;
};

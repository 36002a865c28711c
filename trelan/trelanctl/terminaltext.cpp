#include "terminaltext.h"

#include <QtCore/QVector>

#include <algorithm>
#include <array>

namespace trelanctl::terminal
{

namespace
{

struct Range
{
    uint first;
    uint last;
};

// Characters that terminals draw two cells wide, in whole blocks: a cell too many in a seldom used
// block only costs alignment.
constexpr std::array<Range, 11> WIDE = {{{0x1100, 0x115F},
                                         {0x2E80, 0x303E},
                                         {0x3041, 0xA4CF},
                                         {0xAC00, 0xD7A3},
                                         {0xF900, 0xFAFF},
                                         {0xFE30, 0xFE6F},
                                         {0xFF00, 0xFF60},
                                         {0xFFE0, 0xFFE6},
                                         {0x1F300, 0x1F64F},
                                         {0x1F900, 0x1F9FF},
                                         {0x20000, 0x3FFFD}}};

bool isHarmful(uint character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Format: // direction controls, zero width characters, tags
    case QChar::Other_Surrogate:
    case QChar::Other_PrivateUse:
    case QChar::Other_NotAssigned:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

void appendUnit(QString &result, ushort unit)
{
    result += QStringLiteral("\\u%1").arg(unit, 4, 16, QLatin1Char('0'));
}

void appendEscaped(QString &result, uint character)
{
    if (QChar::requiresSurrogates(character)) {
        appendUnit(result, QChar::highSurrogate(character));
        appendUnit(result, QChar::lowSurrogate(character));
    } else {
        appendUnit(result, ushort(character));
    }
}

int width(uint character)
{
    const auto category = QChar::category(character);
    if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
        return 0;
    const bool wide = std::any_of(WIDE.begin(), WIDE.end(), [character](const Range &range) {
        return character >= range.first && character <= range.last;
    });
    return wide ? 2 : 1;
}

} // namespace

QString escaped(const QString &text)
{
    QString result;
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters) {
        if (character == '\\')
            result += QStringLiteral("\\\\");
        else if (isHarmful(character))
            appendEscaped(result, character);
        else
            result += QString::fromUcs4(&character, 1);
    }
    return result;
}

QString escapedJson(const QByteArray &json)
{
    QString result;
    const QVector<uint> characters = QString::fromUtf8(json).toUcs4();
    for (const uint character : characters) {
        if (character != '\n' && isHarmful(character))
            appendEscaped(result, character);
        else
            result += QString::fromUcs4(&character, 1);
    }
    return result;
}

int width(const QString &text)
{
    int cells = 0;
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters)
        cells += width(character);
    return cells;
}

QString padded(const QString &text, int cells)
{
    return text + QString(qMax(0, cells - width(text)), QLatin1Char(' '));
}

QString cut(const QString &text, int cells)
{
    if (width(text) <= cells)
        return text;
    QString result;
    int used = 1; // the ellipsis
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters) {
        used += width(character);
        if (used > cells)
            break;
        result += QString::fromUcs4(&character, 1);
    }
    return result + QChar(0x2026);
}

} // namespace trelanctl::terminal

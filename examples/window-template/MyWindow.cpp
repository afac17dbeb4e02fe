#include "MyWindow.h"

#include <QVBoxLayout>

MyWindow::MyWindow(const QStringList& symbols)
{
    auto* const layout = new QVBoxLayout(this);
    layout->addWidget(&m_symbols);
    layout->addWidget(&m_quote);
    m_symbols.addItems(symbols);
    connect(&m_symbols, &QComboBox::currentTextChanged, this, [this](const QString& symbol) {
        refresh();
        emit chosen(symbol);
    });
}

void MyWindow::showQuotes(const QHash<QString, lxclient::Quote>& newest)
{
    for (const lxclient::Quote& quote : newest)
        m_quotes[quote.symbol] = quote;
    refresh();
}

void MyWindow::choose(const QString& symbol)
{
    m_symbols.setCurrentText(symbol);
}

QString MyWindow::text() const
{
    return m_quote.text();
}

void MyWindow::refresh()
{
    const lxclient::Quote quote = m_quotes.value(m_symbols.currentText());
    m_quote.setText(quote.bid.toString() + QStringLiteral(" / ") + quote.ask.toString());
}

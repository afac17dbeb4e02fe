// MyWindow: shows the quote of one symbol, which the user chooses. Knows nothing of the bus.
#ifndef MYWINDOW_H
#define MYWINDOW_H

#include <lxclient/Protocol.h>

#include <QComboBox>
#include <QHash>
#include <QLabel>
#include <QWidget>

class MyWindow : public QWidget
{
    Q_OBJECT
public:
    explicit MyWindow(const QStringList& symbols);

    // The newest quotes of some symbols.
    void showQuotes(const QHash<QString, lxclient::Quote>& newest);

    // As if the user had chosen it.
    void choose(const QString& symbol);

    QString text() const;

signals:
    void chosen(const QString& symbol);

private:
    void refresh();

    QHash<QString, lxclient::Quote> m_quotes; // the last, by symbol
    QComboBox m_symbols;
    QLabel m_quote;
};

#endif

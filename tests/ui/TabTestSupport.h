#pragma once

// A settings tab shown in a window of its own, with its controls found by what they say.

#include "app/AppFixture.h"
#include "settings/Preferences.h"
#include "support/EventLoop.h"
#include "ui/AccessibilityCheck.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QSaveFile>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTest>
#include <QWidget>
#include <memory>

namespace vocari::test {

template <typename Widget> Widget *named(QWidget *root, const QString &name)
{
    for (Widget *widget : root->findChildren<Widget *>())
        if (widget->accessibleName() == name)
            return widget;
    ADD_FAILURE() << "no control named " << name.toStdString();
    return nullptr;
}

inline QAbstractButton *button(QWidget *root, const QString &text)
{
    for (QAbstractButton *candidate : root->findChildren<QAbstractButton *>())
        if (candidate->text() == text)
            return candidate;
    ADD_FAILURE() << "no button " << text.toStdString();
    return nullptr;
}

inline bool showsText(QWidget *root, const QString &text)
{
    const QList<QLabel *> labels = root->findChildren<QLabel *>();
    return std::any_of(labels.begin(), labels.end(), [&](QLabel *label) {
        return label->text() == text && label->isVisibleTo(root);
    });
}

// A check box reacts to a click on its box, not anywhere in its rectangle.
inline void click(QWidget *widget)
{
    QPoint where = widget->rect().center();
    if (auto *box = qobject_cast<QCheckBox *>(widget)) {
        QStyleOptionButton option;
        option.initFrom(box);
        option.text = box->text();
        where = box->style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, box).center();
    }
    QTest::mouseClick(widget, Qt::LeftButton, {}, where);
}

template <typename Tab> class TabFixture : public AppFixture
{
protected:
    void SetUp() override
    {
        AppFixture::SetUp();
        makeTab();
    }
    void TearDown() override
    {
        m_tab.reset(); // before the model it watches
        AppFixture::TearDown();
    }
    void makeTab()
    {
        m_tab.reset();
        m_tab = std::make_unique<Tab>(*m_model);
        m_tab->resize(560, 520);
        m_tab->show();
        m_tab->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(m_tab.get()));
    }

    // Replaces the settings file as another program would.
    void editFile(std::initializer_list<std::pair<const char *, QJsonValue>> values)
    {
        const QString path = m_settings.store().filePath();
        QFile file(path);
        QJsonObject object;
        if (file.open(QIODevice::ReadOnly))
            object = QJsonDocument::fromJson(file.readAll()).object();
        for (const auto &[key, value] : values)
            object.insert(QString::fromLatin1(key), value);
        QSaveFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(QJsonDocument(object).toJson());
        ASSERT_TRUE(out.commit());
        m_settings.store().reload();
    }
    void editFile(const char *key, const QJsonValue &value) { editFile({{key, value}}); }

    // The stored value as JSON text ("true", "57", "\"main\""); empty when absent.
    QString stored(const char *key)
    {
        const QJsonValue value = m_settings.store().value(QString::fromLatin1(key));
        if (value.isUndefined())
            return {};
        const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
        return QString::fromUtf8(array.mid(1, array.size() - 2));
    }
    void store(const char *key, const QJsonValue &value)
    {
        m_settings.store().setValue(QString::fromLatin1(key), value);
    }

    std::unique_ptr<Tab> m_tab;
};

} // namespace vocari::test

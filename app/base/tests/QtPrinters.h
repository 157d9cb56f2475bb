// Lets GoogleTest print Qt strings and string lists readably in failure messages.
#pragma once

#include <QString>
#include <QStringList>
#include <ostream>

inline void PrintTo(const QString& s, std::ostream* pOut) {
  *pOut << '"' << s.toStdString() << '"';
}

inline void PrintTo(const QStringList& List, std::ostream* pOut) {
  *pOut << '{';
  for (int i = 0; i < List.size(); ++i) {
    *pOut << (i ? ", " : "") << '"' << List[i].toStdString() << '"';
  }
  *pOut << '}';
}

#include <QDrag>
#include <QGuiApplication>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QRasterWindow>
#include <QUrl>

#include <cstdio>
#include <utility>

namespace {

/// A window from which files are dragged, as from a file manager's. Prints a line whenever the
/// place under the pointer answers otherwise than before, "over copy" or "over none", and "done"
/// when the target has dealt with what was dropped on it or when nothing was.
class DragSource final : public QRasterWindow {
public:
    explicit DragSource(QList<QUrl> files) : files_(std::move(files)) {
        setTitle(QStringLiteral("Files"));
        resize(120, 80);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter(this).fillRect(QRect(0, 0, width(), height()), Qt::lightGray);
    }

    void mousePressEvent(QMouseEvent*) override {
        auto* const data = new QMimeData; // the drag's from here on
        data->setUrls(files_);
        auto* const drag = new QDrag(this);
        drag->setMimeData(data);
        connect(drag, &QDrag::actionChanged, [](Qt::DropAction action) {
            tell(action == Qt::CopyAction     ? "over copy"
                 : action == Qt::IgnoreAction ? "over none"
                                              : "over other");
        });
        // The toolkit keeps it until the target has answered.
        connect(drag, &QObject::destroyed, [] { tell("done"); });
        // As file managers do, which move within a volume unless the target wants a copy.
        drag->exec(Qt::CopyAction | Qt::MoveAction, Qt::MoveAction);
    }

private:
    static void tell(const char* line) {
        static_cast<void>(std::puts(line));
        static_cast<void>(std::fflush(stdout));
    }

    QList<QUrl> files_;
};

} // namespace

/// Arguments: the URLs of the files.
int main(int argc, char* argv[]) {
    const QGuiApplication application(argc, argv);
    QList<QUrl> files;
    for (const QString& url : QGuiApplication::arguments().mid(1)) files.append(QUrl(url));
    DragSource source(std::move(files));
    source.show();
    return QGuiApplication::exec();
}

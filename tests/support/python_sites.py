"""What python_web.py asks Flask and Django for, each checked by wsgiref.validate. As a program: makes Django's database."""

import io
import os
from wsgiref.validate import validator

import django
import flask
from django.conf import settings
from django.core.wsgi import get_wsgi_application

# ---- Flask: a session, a form with a file that redirects to what was sent, a file -------------------------

pages = flask.Flask(__name__)
pages.secret_key = b"of the test"


@pages.route("/")
def start():
    flask.session["visits"] = flask.session.get("visits", 0) + 1
    return f"visit {flask.session['visits']}, {sorted(flask.request.cookies)}, {flask.request.args.get('q')}"


@pages.route("/form/", methods=["POST"])
def form():
    size = len(flask.request.files["file"].read())
    return flask.redirect(flask.url_for("sent", name=flask.request.form["name"], size=size))


@pages.route("/sent")
def sent():
    return flask.Response(f"{name}: {value}\n" for name, value in flask.request.args.items())


@pages.route("/download")
def download():
    return flask.send_file(io.BytesIO(bytes(range(256)) * 4000), "application/octet-stream")


flask_site = validator(pages)

# ---- Django: its administration, with a model of a file ---------------------------------------------------

FOLDER = os.environ["SITE_FOLDER"]
CONTRIB = "django.contrib."
settings.configure(
    ALLOWED_HOSTS=["127.0.0.1"],
    DATABASES={"default": {"ENGINE": "django.db.backends.sqlite3", "NAME": f"{FOLDER}/database"}},
    DEFAULT_AUTO_FIELD="django.db.models.AutoField",
    INSTALLED_APPS=[CONTRIB + name for name in ("admin", "auth", "contenttypes", "messages", "sessions")],
    LOGGING={"version": 1, "disable_existing_loggers": False, "loggers": {"django": {"level": "ERROR"}}},
    MEDIA_ROOT=FOLDER,
    MIDDLEWARE=["django.middleware.common.CommonMiddleware", CONTRIB + "sessions.middleware.SessionMiddleware",
                "django.middleware.csrf.CsrfViewMiddleware", CONTRIB + "auth.middleware.AuthenticationMiddleware",
                CONTRIB + "messages.middleware.MessageMiddleware"],
    ROOT_URLCONF=__name__,
    SECRET_KEY="of the test",
    STATIC_URL="static/",
    TEMPLATES=[{"BACKEND": "django.template.backends.django.DjangoTemplates", "APP_DIRS": True, "OPTIONS": {
        "context_processors": ["django.template.context_processors.request", CONTRIB + "auth.context_processors.auth",
                               CONTRIB + "messages.context_processors.messages"]}}],
)
django.setup()

from django.contrib import admin, auth  # noqa: E402
from django.core.management import call_command  # noqa: E402
from django.db import connection, models  # noqa: E402
from django.http import FileResponse  # noqa: E402
from django.urls import path  # noqa: E402


class Document(models.Model):
    file = models.FileField(upload_to="uploads")

    class Meta:
        app_label = "auth"  # any that is installed


admin.site.register(Document)
urlpatterns = [
    path("admin/", admin.site.urls),
    path("download/<int:key>", lambda request, key: FileResponse(Document.objects.get(pk=key).file.open())),
]
django_site = validator(get_wsgi_application())

if __name__ == "__main__":
    call_command("migrate", verbosity=0)
    with connection.schema_editor() as editor:
        editor.create_model(Document)
    auth.get_user_model().objects.create_superuser("boss", password="secret")

"""What python_web.py asks Django for: its administration, with a model of a file. Run as a program it makes the database."""

import os
import wsgiref.validate

import django
from django.conf import settings
from django.core.wsgi import get_wsgi_application

FOLDER = os.environ["SITE_FOLDER"]
settings.configure(
    ALLOWED_HOSTS=["127.0.0.1"],
    DATABASES={"default": {"ENGINE": "django.db.backends.sqlite3", "NAME": f"{FOLDER}/database"}},
    DEFAULT_AUTO_FIELD="django.db.models.AutoField",
    INSTALLED_APPS=["django.contrib." + name for name in ("admin", "auth", "contenttypes", "messages", "sessions")],
    LOGGING={"version": 1, "disable_existing_loggers": False, "loggers": {"django": {"level": "ERROR"}}},
    MEDIA_ROOT=FOLDER,
    MIDDLEWARE=["django." + name for name in (
        "middleware.common.CommonMiddleware", "contrib.sessions.middleware.SessionMiddleware",
        "middleware.csrf.CsrfViewMiddleware", "contrib.auth.middleware.AuthenticationMiddleware",
        "contrib.messages.middleware.MessageMiddleware")],
    ROOT_URLCONF=__name__,
    SECRET_KEY="of the test",
    STATIC_URL="static/",
    TEMPLATES=[{"BACKEND": "django.template.backends.django.DjangoTemplates", "APP_DIRS": True, "OPTIONS": {
        "context_processors": ["django.template.context_processors.request", "django.contrib.auth.context_processors.auth",
                               "django.contrib.messages.context_processors.messages"]}}],
)
django.setup()

from django.contrib import admin  # noqa: E402 - only after setup()
from django.contrib.auth.models import User  # noqa: E402
from django.core.management import call_command  # noqa: E402
from django.db import connection, models  # noqa: E402
from django.http import FileResponse  # noqa: E402
from django.urls import path  # noqa: E402


class Document(models.Model):
    file = models.FileField(upload_to="uploads")

    class Meta:
        app_label = "auth"  # any that is installed


def download(request, key):
    return FileResponse(Document.objects.get(pk=key).file.open(), as_attachment=True)


admin.site.register(Document)
urlpatterns = [path("admin/", admin.site.urls), path("download/<int:key>", download)]
application = wsgiref.validate.validator(get_wsgi_application())

if __name__ == "__main__":
    call_command("migrate", verbosity=0)
    with connection.schema_editor() as editor:
        editor.create_model(Document)
    User.objects.create_superuser("boss", password="secret")
